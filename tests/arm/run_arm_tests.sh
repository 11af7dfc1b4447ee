#!/usr/bin/env bash
# dl_lib on 32-bit ARM, in two builds of its own:
#  - build/h-arm-linux: the library's unit tests, the generated-code tests,
#    the C API test and the examples (digits with its accuracy check, the
#    firmware), cross-compiled for armhf Linux at -O3 and run under qemu-arm
#    user-mode emulation;
#  - build/h-arm-m4: the library at -Os for a bare-metal Cortex-M4F, with the
#    firmware image run on QEMU's mps2-an386 board.
# Both compare the output of the firmware and of the keyword spotter's
# firmware (examples/wakeword/firmware) byte for byte with the same programs
# built for the host.
#
#   tests/arm/run_arm_tests.sh [host build dir]      (default: build/ci)
#
# The host build must hold the converter (tool/kelvane) and both firmware
# programs: a cross build cannot run what it compiles.
# Installs the cross compilers, newlib, QEMU and GoogleTest's sources when
# they are missing (Debian).
set -euo pipefail
cd "$(dirname "$0")/../.."

host=$(realpath "${1:-build/ci}")
for f in tool/kelvane examples/firmware/firmware examples/wakeword/firmware/kws_firmware; do
    [ -x "$host/$f" ] || { echo "$0: $host/$f missing: build the host tree first" >&2; exit 1; }
done

missing=()
command -v arm-none-eabi-gcc >/dev/null || missing+=(gcc-arm-none-eabi)
[ -e /usr/lib/arm-none-eabi/newlib/thumb/v7e-m+fp/hard/libc_nano.a ] || missing+=(libnewlib-arm-none-eabi)
command -v arm-linux-gnueabihf-gcc >/dev/null || missing+=(gcc-arm-linux-gnueabihf)
command -v arm-linux-gnueabihf-g++ >/dev/null || missing+=(g++-arm-linux-gnueabihf)
command -v qemu-arm >/dev/null || missing+=(qemu-user)
command -v qemu-system-arm >/dev/null || missing+=(qemu-system-arm)
[ -e /usr/src/googletest/CMakeLists.txt ] || missing+=(googletest)
if [ ${#missing[@]} -gt 0 ]; then
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

common=(-DDL_LIB_WERROR=ON -DDL_LIB_BUILD_TOOL=OFF
        "-DDL_LIB_HOST_KELVANE=$host/tool/kelvane"
        "-DDL_LIB_HOST_FIRMWARE=$host/examples/firmware/firmware"
        "-DDL_LIB_HOST_KWS_FIRMWARE=$host/examples/wakeword/firmware/kws_firmware")

cmake -S . -B build/h-arm-linux --toolchain cmake/toolchain-arm-linux-gnueabihf.cmake \
      -DCMAKE_BUILD_TYPE=Release -DDL_LIB_GTEST_SOURCE_DIR=/usr/src/googletest "${common[@]}"
cmake --build build/h-arm-linux -j2
# The unit tests in one process: under emulation, starting one process per
# test (as CTest does) would cost more than the tests themselves.
qemu-arm -L /usr/arm-linux-gnueabihf build/h-arm-linux/tests/dl_lib_tests --gtest_brief=1
qemu-arm -L /usr/arm-linux-gnueabihf build/h-arm-linux/tests/audio_tests --gtest_brief=1
ctest --test-dir build/h-arm-linux -j2 --output-on-failure -R '^(generated\.|c_api$|examples\.|firmware\.|kws_firmware\.)'

cmake -S . -B build/h-arm-m4 --toolchain cmake/toolchain-cortex-m4f.cmake \
      -DCMAKE_BUILD_TYPE=MinSizeRel -DDL_LIB_FILE_IO=OFF -DDL_LIB_BUILD_TESTS=OFF "${common[@]}"
cmake --build build/h-arm-m4 -j2
ctest --test-dir build/h-arm-m4 --output-on-failure
