#!/usr/bin/env bash
# What dl_lib costs on a Cortex-M4F, from the bare-metal build that
# .ci/arm makes (build/h-arm-m4, -Os, unused sections
# dropped by the link). Prints Markdown tables:
#
#  - code size: the library's .text, .rodata, .data and .bss in a firmware
#    link, for a model of fully connected layers only (float, fixed point)
#    and for the every-layer network of examples/firmware in all three
#    formats; beside it what the library pulls in from the C runtime (the
#    image's C runtime minus that of an image with no model) and the flash
#    of the generated tables;
#  - the arena and the peak stack of one inference in each format, and the
#    stack of single layers, measured on QEMU's mps2-an386 (examples/firmware);
#  - library functions that call double-precision helpers (software on this
#    single-precision FPU), 64-bit division (software too) or the C library's
#    formatted output.
#
#   bench/device_cost.sh [bare-metal build dir]      (default: build/h-arm-m4)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=${1:-$here/../build/h-arm-m4}
fw=$build/examples/firmware
[ -f "$build/CMakeCache.txt" ] || { echo "no $build: run .ci/arm first" >&2; exit 1; }
cmake --build "$build" -j2 --target firmware cost_none cost_fc_float cost_fc_fixed cost_all >/dev/null

# One line per input section of a GNU ld map that lands in flash or RAM:
#   owner kind bytes object
# owner: lib (dl_lib), tables (a generated model source), crt (C library,
# libm, libgcc) or app; kind: text, rodata, data or bss; object: the archive
# member or the object file's name.
sections() {
    awk '
    function hex(s,   i, v) {
        v = 0; s = tolower(substr(s, 3))
        for (i = 1; i <= length(s); i++) v = v * 16 + index("0123456789abcdef", substr(s, i, 1)) - 1
        return v
    }
    function kind(out) {
        if (out == ".text") return "text"
        if (out == ".rodata" || out ~ /^\.ARM\.ex/ || out == ".init_array") return "rodata"
        if (out == ".data") return "data"
        if (out == ".bss") return "bss"
        return ""
    }
    function add(size, file,   k, owner, object) {
        k = kind(out)
        if (k == "" || hex(size) == 0) return
        owner = "app"
        if (file ~ /libdl_lib\.a\(/) owner = "lib"
        else if (file ~ /\/kelvane\//) owner = "tables"
        else if (file ~ /lib(c_nano|c|g_nano|g|m|gcc|rdimon_nano|rdimon)\.a\(/) owner = "crt"
        object = file
        sub(/.*\//, "", object)
        print owner, k, hex(size), object
    }
    /^Linker script and memory map/ { inmap = 1; next }
    !inmap { next }
    /^[.A-Za-z_]/ { out = $1; pending = 0; next }
    /^ [.A-Z]/ && $1 != "*fill*" {
        if (NF >= 4 && $2 ~ /^0x/ && $3 ~ /^0x/) add($3, $4); else pending = 1
        next
    }
    pending && $1 ~ /^0x/ && $2 ~ /^0x/ && NF >= 3 { add($2, $3); pending = 0; next }
    { pending = 0 }' "$1"
}

# Bytes of one owner's sections of the given kinds ("text rodata").
bytes() { awk -v owner="$2" -v kinds=" $3 " '$1 == owner && index(kinds, " " $2 " ") { n += $3 } END { print n + 0 }' "$1"; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for image in cost_none cost_fc_float cost_fc_fixed cost_all; do
    sections "$fw/$image.elf.map" > "$work/$image"
done
base_crt=$(bytes "$work/cost_none" crt "text rodata data")

echo "### Code size on a Cortex-M4F (arm-none-eabi-gcc -Os, --gc-sections, newlib-nano)"
echo
echo "| Image | dl_lib .text | .rodata | .data | .bss | C runtime it adds (flash) | tables (flash) |"
echo "|---|---:|---:|---:|---:|---:|---:|"
for image in cost_fc_float cost_fc_fixed cost_all; do
    case $image in
        cost_fc_float) label="fully connected only, float (40-16-3, relu)" ;;
        cost_fc_fixed) label="fully connected only, fixed point" ;;
        cost_all) label="every layer: the three digit networks, all three formats" ;;
    esac
    f=$work/$image
    echo "| $label | $(bytes "$f" lib text) | $(bytes "$f" lib rodata) | $(bytes "$f" lib data) | $(bytes "$f" lib bss)" \
         "| $(( $(bytes "$f" crt "text rodata data") - base_crt )) | $(bytes "$f" tables "text rodata data") |"
done
echo
echo "C runtime: what the image takes from newlib-nano and libgcc beyond an image without a"
echo "model (start-up, exit and semihosting). Tables: records, items and lookup functions of the"
echo "generated sources (fully connected: examples/demo/model; every layer: the six pairs below)."
echo
echo "| Generated pair (examples/digits) | flash (bytes) |"
echo "|---|---:|"
awk '$1 == "tables" && $2 != "bss" { sub(/\.c\.obj$/, "", $4); n[$4] += $3 } END { for (p in n) print p, n[p] }' \
    "$work/cost_all" | sort | awk '{ printf "| %s | %d |\n", $1, $2 }'
echo
echo "What the every-layer image adds from the C runtime, largest first:"
echo
echo "| Object | flash (bytes) |"
echo "|---|---:|"
awk 'NR == FNR { if ($1 == "crt") base[$4] = 1; next }
     $1 == "crt" && $2 != "bss" && !($4 in base) { n[$4] += $3 }
     END { for (o in n) print n[o], o }' "$work/cost_none" "$work/cost_all" | sort -rn | head -15 |
    awk '{ printf "| %s | %d |\n", $2, $1 }'
echo

start=$(date +%s.%N)
qemu-system-arm -M mps2-an386 -cpu cortex-m4 -nographic -monitor none -serial none \
    -semihosting-config enable=on,target=native -kernel "$fw/firmware.elf" > "$work/out" 2> "$work/err"
end=$(date +%s.%N)
echo "### Memory of one inference on QEMU mps2-an386 (largest over eight test images)"
echo
echo "The firmware gives the library a static arena instead of a heap (dl_use_arena):"
awk '$1 == "arena" && $2 == "records" { printf "the records made at start-up for all nine runs take %d of its %d bytes, and each run needs these temporaries above them.\n\n", $3, $5 }' "$work/err"
echo "| Measured | arena temporaries (bytes) | peak stack (bytes) |"
echo "|---|---:|---:|"
awk '$1 == "arena" && $NF ~ /^[0-9]+$/ && $(NF - 1) == "temporaries" {
        label = $2; for (i = 3; i < NF - 1; i++) label = label " " $i
        arena[label] = $NF
        next
     }
     $1 == "cost" {
        n = NF; label = $2; for (i = 3; i <= n - 6; i++) label = label " " $i
        if (!(label in stack)) order[++count] = label
        if ($n > stack[label]) stack[label] = $n
     }
     END { for (i = 1; i <= count; i++) { l = order[i]; printf "| %s | %s | %d |\n", l, (l in arena) ? arena[l] : "", stack[l] } }' "$work/err"
echo
awk -v s="$start" -v e="$end" -v n="$(wc -l < "$work/out")" \
    'BEGIN { printf "The firmware ran in %.2f s of wall time under QEMU and printed %d lines.\n\n", e - s, n }'

# Library functions in the every-layer image, with the helpers they call.
echo "### Library functions that call double-precision, 64-bit division or formatted-output code"
echo
echo "| Kind | Function | Calls |"
echo "|---|---|---|"
arm-none-eabi-nm --defined-only "$build/dl_lib/libdl_lib.a" | awk '$2 ~ /^[TtWw]$/ { print $3 }' | sort -u > "$work/lib_functions"
arm-none-eabi-objdump -d --no-show-raw-insn "$fw/cost_all.elf" | awk -v names="$work/lib_functions" '
    BEGIN { while ((getline line < names) > 0) inlib[line] = 1 }
    /^[0-9a-f]+ <.*>:$/ { fn = substr($2, 2, length($2) - 3); next }
    !(fn in inlib) || !/\tbl?\t/ || !match($0, /<[^>+]*>/) { next }
    {
        callee = substr($0, RSTART + 1, RLENGTH - 2)
        kind = ""
        if (callee ~ /^__aeabi_(d|[ifl]2d|ui2d|ul2d)/ || callee ~ /^(sqrt|ceil|floor|exp|log|pow)$/) kind = "double precision"
        else if (callee ~ /^__aeabi_u?ldivmod$/) kind = "64-bit division"
        else if (callee ~ /printf|^puts$|^fputs$|^putchar$/) kind = "formatted output"
        if (kind == "" || seen[kind, fn, callee]++) next
        if (!((kind, fn) in calls)) order[++n] = kind SUBSEP fn
        calls[kind, fn] = calls[kind, fn] (calls[kind, fn] == "" ? "" : ", ") "`" callee "`"
    }
    END { for (i = 1; i <= n; i++) { split(order[i], k, SUBSEP); printf "| %s | `%s` | %s |\n", k[1], k[2], calls[k[1], k[2]] } }' |
    arm-none-eabi-c++filt | sort
