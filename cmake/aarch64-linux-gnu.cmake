# SPDX-License-Identifier: Apache-2.0
# Cross build for 64-bit Arm Linux with Debian's g++-aarch64-linux-gnu; programs run under
# qemu-aarch64 (ctest and gtest_discover_tests go through the emulator). Packages are looked up in
# the Debian multiarch sysroot and in KESTREL_ARM64_PREFIX (where scripts/arm64.sh installs the
# GoogleTest it cross-builds).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu ${KESTREL_ARM64_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /usr/aarch64-linux-gnu)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KESTREL_ARM64_PREFIX)
