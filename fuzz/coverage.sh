#!/usr/bin/env bash
# Line and branch coverage of the parsers by a fuzz corpus: builds the
# harnesses with clang's source-based coverage, replays the corpus of each
# (the one fuzz/run.sh grew, with the committed seeds) and reports the
# loaders' and the converter's sources.
#
#   fuzz/coverage.sh [harness...]
#
# Environment: KELVANE_FUZZ_BUILD (where fuzz/run.sh keeps its corpus,
# default build/fuzz), KELVANE_FUZZ_COVERAGE_BUILD (default build/fuzz-cov).
set -euo pipefail
cd "$(dirname "$0")/.."

harnesses=("$@")
[ ${#harnesses[@]} -gt 0 ] || harnesses=(matrix2d weight3d weight3dq input3du model_info convert)
corpus=${KELVANE_FUZZ_BUILD:-build/fuzz}/corpus
build=${KELVANE_FUZZ_COVERAGE_BUILD:-build/fuzz-cov}
cc=${CC:-$(command -v clang-14 || command -v clang)}
cxx=${CXX:-$(command -v clang++-14 || command -v clang++)}
suffix=${cc#*clang}
profdata=$(command -v "llvm-profdata$suffix" || command -v llvm-profdata)
llvm_cov=$(command -v "llvm-cov$suffix" || command -v llvm-cov)

flags="-fprofile-instr-generate -fcoverage-mapping"
cmake -S . -B "$build" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DDL_LIB_BUILD_FUZZERS=ON -DDL_LIB_BUILD_TESTS=OFF "-DCMAKE_C_FLAGS=$flags" "-DCMAKE_CXX_FLAGS=$flags" \
    "-DCMAKE_EXE_LINKER_FLAGS=$flags" >/dev/null
cmake --build "$build" -j 2 --target "${harnesses[@]/%/_fuzzer}"

declare -A seeds=([matrix2d]=npy [weight3d]=npy [weight3dq]=npy [input3du]=npy [model_info]=model_info [convert]=convert)
sources=(dl_lib/src/numpy_input.cpp tool/model_info.cpp tool/convert.cpp tool/model_dir.cpp tool/options.cpp
    tool/emit_tables.cpp tool/emit_tensor.cpp)
objects=()
for h in "${harnesses[@]}"; do
    rm -f "$build/$h".profraw
    dirs=("fuzz/corpus/${seeds[$h]}")
    [ -d "$corpus/$h" ] && dirs+=("$corpus/$h")
    [ -d "fuzz/corpus/found/${h}_fuzzer" ] && dirs+=("fuzz/corpus/found/${h}_fuzzer")
    LLVM_PROFILE_FILE="$build/$h.profraw" KELVANE_FUZZ_COMPILE_EVERY=0 \
        "$build/fuzz/${h}_fuzzer" -runs=0 -malloc_limit_mb=64 "${dirs[@]}" >/dev/null 2>&1
    "$profdata" merge -sparse "$build/$h.profraw" -o "$build/$h.profdata"
    objects+=(-object "$build/fuzz/${h}_fuzzer")
done
# Per source file, what all the harnesses reached together.
"$profdata" merge -sparse $(printf "$build/%s.profraw " "${harnesses[@]}") -o "$build/all.profdata"
"$llvm_cov" report "${objects[@]:1}" -instr-profile="$build/all.profdata" "${sources[@]}" |
    awk 'NR == 1 || /(dl_lib|tool)\// || /^TOTAL/' | sed "s|$PWD/||"
