#!/usr/bin/env bash
# Times kelvane on a large model directory in both 2-D modes, beside a
# baseline that only formats the same numbers with fprintf, and reports
# coefficients per second and peak memory. Peak memory is also measured on a
# directory of a quarter of the files: it must not grow with their number.
#
#   bench/convert_bench.sh [build dir with tool/kelvane] [files] [rows] [cols]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=${1:-$here/../build/release}
files=${2:-16}
rows=${3:-512}
cols=${4:-512}
kelvane=$build/tool/kelvane
[ -x "$kelvane" ] || { echo "no $kelvane: build the release preset first" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cc -O2 -o "$work/format_baseline" "$here/format_baseline.c"
mkdir "$work/big" "$work/small"
"$work/format_baseline" make "$work/big" "$files" "$rows" "$cols"
"$work/format_baseline" make "$work/small" $(( (files + 3) / 4 )) "$rows" "$cols"
coefs=$(( files * rows * cols ))

# Best of three runs: wall seconds and peak resident kilobytes.
measure() {
    local best_s="" best_kb=""
    for _ in 1 2 3; do
        /usr/bin/time -f "%e %M" -o "$work/time" "$@" >/dev/null 2>&1
        read -r s kb < "$work/time"
        if [ -z "$best_s" ] || awk "BEGIN{exit !($s < $best_s)}"; then best_s=$s; fi
        if [ -z "$best_kb" ] || [ "$kb" -lt "$best_kb" ]; then best_kb=$kb; fi
    done
    echo "$best_s $best_kb"
}

report() {
    local label=$1 s=$2 kb=$3
    awk -v l="$label" -v s="$s" -v kb="$kb" -v n="$coefs" \
        'BEGIN { r = (s > 0) ? n / s / 1e6 : 0; printf "%-34s %8.2f s %9.1f M coef/s %8.1f MiB peak\n", l, s, r, kb / 1024 }'
}

echo "model: $files matrices of $rows x $cols floats ($coefs coefficients)"
read -r s kb < <(measure "$work/format_baseline" format "$files" "$rows" "$cols" "$work/base.c")
report "baseline (fprintf only)" "$s" "$kb"
read -r s kb < <(measure "$kelvane" "$work/big" "$work/q.c" "$work/q.h" bench)
report "kelvane, fixed point" "$s" "$kb"
read -r s kb < <(measure "$kelvane" "$work/big" "$work/f.c" "$work/f.h" bench -no-quantized)
report "kelvane, float" "$s" "$kb"
read -r s kb < <(measure "$kelvane" "$work/small" "$work/q.c" "$work/q.h" bench)
echo "peak memory with $(( (files + 3) / 4 )) files instead of $files: $(( kb / 1024 )) MiB (fixed point)"
