# Bare-metal Cortex-M4F: ARMv7E-M in Thumb state with the single-precision
# FPU and the hard-float calling convention, built with Debian's
# gcc-arm-none-eabi against newlib (libnewlib-arm-none-eabi).
#
#   cmake -S . -B build/m4 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-cortex-m4f.cmake \
#         -DDL_LIB_FILE_IO=OFF -DDL_LIB_BUILD_TOOL=OFF -DDL_LIB_BUILD_TESTS=OFF
#
# Every function and object gets its own section so that a firmware link
# with --gc-sections keeps only what it calls. Linker script, start-up code
# and system calls belong to the firmware (see examples/firmware).
set(CMAKE_SYSTEM_NAME Generic)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(CMAKE_C_COMPILER arm-none-eabi-gcc)
set(CMAKE_CXX_COMPILER arm-none-eabi-g++)
set(CMAKE_ASM_COMPILER arm-none-eabi-gcc)
# There is no C library start-up to link a test program against.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

set(DL_LIB_CPU_FLAGS "-mcpu=cortex-m4 -mthumb -mfpu=fpv4-sp-d16 -mfloat-abi=hard")
set(CMAKE_C_FLAGS_INIT "${DL_LIB_CPU_FLAGS} -ffunction-sections -fdata-sections")
set(CMAKE_CXX_FLAGS_INIT "${DL_LIB_CPU_FLAGS} -ffunction-sections -fdata-sections")
set(CMAKE_ASM_FLAGS_INIT "${DL_LIB_CPU_FLAGS}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,--gc-sections")

set(CMAKE_FIND_ROOT_PATH /usr/lib/arm-none-eabi)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
