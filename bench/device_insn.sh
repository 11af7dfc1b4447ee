#!/usr/bin/env bash
# Instructions that dl_lib's products, layers and the bundled networks cost on
# a Cortex-M4F: bench/device/insn_bench.c run on QEMU's mps2-an386 with
# -icount shift=0 (one instruction per nanosecond of the board's clock), from
# the bare-metal build that .ci/arm makes (-Os, GCC 12).
# Prints a Markdown table; the time column is the instruction count at 80 MHz
# as if every instruction took one cycle: a lower bound, since loads, taken
# branches, 64-bit multiply-accumulates and divisions take more.
#
#   bench/device_insn.sh [bare-metal build dir]      (default: build/h-arm-m4)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=${1:-$here/../build/h-arm-m4}
[ -f "$build/CMakeCache.txt" ] || { echo "no $build: run .ci/arm first" >&2; exit 1; }
cmake --build "$build" -j2 --target insn_bench >/dev/null
out=$(qemu-system-arm -M mps2-an386 -cpu cortex-m4 -nographic -monitor none -serial none -icount shift=0 \
      -semihosting-config enable=on,target=native -kernel "$build/examples/firmware/insn_bench.elf")

echo "$out" | awk '$1 == "calibration" {
    printf "Calibration: a loop of %d instructions took %d ticks of the board timer, %.3f instructions a tick.\n", $2, $5, $2 / $5 }'
echo "$out" | awk '$1 == "check" { printf "Check: %s %s %s.\n", $2, $3, $4 }'
echo
echo "| Operation | instructions | +- | multiply-accumulates | instructions per MAC | us at 80 MHz (lower bound) |"
echo "|---|---:|---:|---:|---:|---:|"
echo "$out" | awk '$1 == "insn" {
    n = NF; label = $2; for (i = 3; i <= n - 5; i++) label = label " " $i
    insns = $(n - 4); err = $(n - 2); macs = $n
    count = ""; per = ""
    if (macs > 0) { count = macs; per = sprintf("%.2f", insns / macs) }
    printf "| %s | %d | %d | %s | %s | %.1f |\n", label, insns, err, count, per, insns / 80.0 }'
