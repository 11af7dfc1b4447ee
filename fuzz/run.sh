#!/usr/bin/env bash
# Builds the fuzz harnesses with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer, and runs each on its seed corpus.
#
#   fuzz/run.sh                      every harness for 60 s (what CI runs)
#   fuzz/run.sh -t 300 convert       one harness for 300 s
#   fuzz/run.sh -n 10000000          every harness for ten million inputs
#
# Exits with status 1 on the first finding, leaving the input under
# <build>/artifacts/ and the log under <build>/logs/. Reproduce with
#   <build>/fuzz/<harness>_fuzzer <input>
# and keep it as a regression test. The corpus a run grows stays in
# <build>/corpus/ and is reused by the next run; the committed seeds in
# fuzz/corpus/ are only read. Environment: KELVANE_FUZZ_BUILD (build
# directory, default build/fuzz), CC and CXX (default clang-14 or clang).
set -euo pipefail
cd "$(dirname "$0")/.."

limit=(-max_total_time=60)
while getopts "t:n:" opt; do
    case $opt in
    t) limit=(-max_total_time="$OPTARG") ;;
    n) limit=(-runs="$OPTARG") ;;
    *) exit 2 ;;
    esac
done
shift $((OPTIND - 1))
harnesses=("$@")
[ ${#harnesses[@]} -gt 0 ] || harnesses=(matrix2d weight3d weight3dq input3du model_info convert)

build=${KELVANE_FUZZ_BUILD:-build/fuzz}
cc=${CC:-$(command -v clang-14 || command -v clang)}
cxx=${CXX:-$(command -v clang++-14 || command -v clang++)}
cmake -S . -B "$build" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DDL_LIB_BUILD_FUZZERS=ON -DDL_LIB_BUILD_TESTS=OFF -DDL_LIB_WERROR=ON >/dev/null
cmake --build "$build" -j 2 --target "${harnesses[@]/%/_fuzzer}"

# Per harness: seed corpus and the largest input worth trying.
declare -A seeds=([matrix2d]=npy [weight3d]=npy [weight3dq]=npy [input3du]=npy [model_info]=model_info [convert]=convert)
declare -A max_len=([matrix2d]=4096 [weight3d]=4096 [weight3dq]=4096 [input3du]=4096 [model_info]=8192 [convert]=16384)

mkdir -p "$build/artifacts" "$build/logs"
for h in "${harnesses[@]}"; do
    work="$build/corpus/$h"
    mkdir -p "$work"
    dirs=("$work" "fuzz/corpus/${seeds[$h]}")
    [ -d "fuzz/corpus/found/${h}_fuzzer" ] && dirs+=("fuzz/corpus/found/${h}_fuzzer")
    log="$build/logs/$h.log"
    echo "== $h: ${limit[*]}"
    # One allocation beyond 64 MB, 2 GB resident or 10 s on one input is a
    # finding: no input of these sizes may cost that much.
    if ! "$build/fuzz/${h}_fuzzer" "${limit[@]}" -dict=fuzz/kelvane.dict -max_len="${max_len[$h]}" \
        -timeout=10 -malloc_limit_mb=64 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$build/artifacts/$h-" "${dirs[@]}" >"$log" 2>&1; then
        tail -n 80 "$log"
        echo "== $h: FINDING, see $log and $build/artifacts/"
        exit 1
    fi
    grep -aE "^#[0-9]+[[:space:]]+DONE|^stat::number_of_executed_units|^stat::peak_rss_mb" "$log" || tail -n 5 "$log"
done
