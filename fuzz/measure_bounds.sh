#!/usr/bin/env bash
# Peak memory of the converter on the hostile model directories that the
# README's "Hostile input" section states bounds for, beside a real matrix
# for comparison. Needs /usr/bin/time and /usr/bin/python3.
#
#   fuzz/measure_bounds.sh [kelvane]      (default build/release/tool/kelvane)
#
# Prints one line per case and mode: peak resident set in KB, exit status and
# the converter's last line on stdout.
set -euo pipefail
kelvane=$(realpath "${1:-build/release/tool/kelvane}")
work=$(mktemp -d /tmp/kelvane_bounds_XXXXXX)
trap 'rm -rf "$work"' EXIT

# npy <file> <header shape text> <descr> <data bytes: python expression>
npy() {
    /usr/bin/python3 - "$@" <<'EOF'
import struct, sys
path, shape, descr, data = sys.argv[1:5]
h = ("{'descr': '%s', 'fortran_order': False, 'shape': %s, }" % (descr, shape)).encode()
h += b" " * (63 - (10 + len(h)) % 64) + b"\n"
with open(path, "wb") as f:
    f.write(b"\x93NUMPY\x01\x00" + struct.pack("<H", len(h)) + h + eval(data))
EOF
}

case_dir() { rm -rf "$work/m" && mkdir -p "$work/m" && echo "$work/m"; }

run() {  # run <label> <options...>
    local label=$1
    shift
    local out rc
    out=$(/usr/bin/time -f "%M" -o "$work/rss" "$kelvane" "$work/m" "$work/o.c" "$work/o.h" o "$@" 2>/dev/null) && rc=0 || rc=$?
    printf '%-34s %-18s %8s KB  status %d  %s\n' "$label" "${*:-(quantised)}" "$(cat "$work/rss")" "$rc" \
        "$(printf '%s\n' "$out" | tail -n 1 | cut -c1-60)"
}

both() {  # both <label>: the two 2-D modes
    run "$1"
    run "$1" -no-quantized
}

every_mode() {  # every_mode <label>: all five modes
    both "$1"
    run "$1" -3d
    run "$1" -3d -no-quantized
    run "$1" -3d -in
}

case_dir >/dev/null
every_mode "empty directory"

d=$(case_dir)
npy "$d/w.npy" "(2000000000, 1)" "<f4" "struct.pack('<6f', 1, 2, 3, 4, 5, 6)"
npy "$d/x.npy" "(46340, 46340)" "<f8" "b''"
npy "$d/y.npy" "(0, 2000000000)" "<f4" "b''"
npy "$d/z.npy" "(2000000000, 0)" "<i8" "b''"
npy "$d/t.npy" "(2000, 1000, 1000, 2)" "<f4" "b''"
npy "$d/u.npy" "(0, 4, 2147483647)" "<f4" "b''"
every_mode "billions promised, 6 headers"

d=$(case_dir)
/usr/bin/python3 - "$d" <<'EOF'
import struct, sys
h = b"{'descr': '<f4', 'fortran_order': False, 'shape': (64,), }"
h += b" " * (63 - (10 + len(h)) % 64) + b"\n"
body = b"\x93NUMPY\x01\x00" + struct.pack("<H", len(h)) + h + struct.pack("<64f", *range(64))
for i in range(10000):
    with open(f"{sys.argv[1]}/w{i:05d}.npy", "wb") as f:
        f.write(body)
EOF
every_mode "10000 files of 64 floats"

d=$(case_dir)
/usr/bin/python3 -c "import sys; open(sys.argv[1] + '/_MODEL_INFO_', 'w').write('x' * (64 << 20) + '_a_w_1_0.5_0.5\n')" "$d"
every_mode "_MODEL_INFO_ line of 64 MB"

d=$(case_dir)
/usr/bin/python3 -c "import sys; open(sys.argv[1] + '/_MODEL_INFO_', 'w').write('a_b\n' * (16 << 20) + 'm_v_w_1_0.5_0.5\n')" "$d"
every_mode "_MODEL_INFO_ of 16 M short lines"

d=$(case_dir)
npy "$d/big.npy" "(2048, 2048)" "<f4" "struct.pack('<f', 0.5) * (2048 * 2048)"
both "real 2048 x 2048 <f4 (16 MB)"

d=$(case_dir)
npy "$d/big.npy" "(2048, 2048)" "<f8" "struct.pack('<d', 0.5) * (2048 * 2048)"
both "real 2048 x 2048 <f8 (32 MB)"

d=$(case_dir)
npy "$d/bank.npy" "(32, 32, 64, 64)" "<f4" "struct.pack('<f', 0.5) * (32 * 32 * 64 * 64)"
run "real 32 x 32 x 64 x 64 <f4 (16 MB)" -3d
run "real 32 x 32 x 64 x 64 <f4 (16 MB)" -3d -no-quantized

d=$(case_dir)
npy "$d/image.npy" "(1024, 1024, 4)" "|u1" "bytes(1024 * 1024 * 4)"
run "real 1024 x 1024 x 4 |u1 (4 MB)" -3d -in
npy "$d/image.npy" "(1024, 1024, 4)" "<f4" "struct.pack('<f', 3.0) * (1024 * 1024 * 4)"
run "real 1024 x 1024 x 4 <f4 (16 MB)" -3d -in
