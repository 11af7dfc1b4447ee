# 32-bit ARM Linux (armhf), built with Debian's gcc-arm-linux-gnueabihf and
# g++-arm-linux-gnueabihf. Test programs run under qemu-arm user-mode
# emulation, which CTest and gtest_discover_tests prepend by themselves.
#
#   cmake -S . -B build/arm -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-arm-linux-gnueabihf.cmake \
#         -DDL_LIB_BUILD_TOOL=OFF -DDL_LIB_HOST_KELVANE=<host build>/tool/kelvane
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

set(DL_LIB_ARM_SYSROOT /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH ${DL_LIB_ARM_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# -L: where qemu-arm finds the target's dynamic loader and shared libraries.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${DL_LIB_ARM_SYSROOT})
