# SPDX-License-Identifier: Apache-2.0
# Cross build for 32-bit ARM Linux with hardware floating point (armhf) with
# Debian's crossbuild-essential-armhf:
#   scripts/cross-sysroot.sh armhf
#   cmake -S . -B build-armhf --toolchain cmake/toolchains/arm-linux-gnueabihf.cmake
# scripts/cross-build.sh armhf does both.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(TAVREN_CROSS_TRIPLET arm-linux-gnueabihf)
set(TAVREN_CROSS_ARCH armhf)
set(TAVREN_CROSS_QEMU qemu-arm-static)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux-common.cmake)
