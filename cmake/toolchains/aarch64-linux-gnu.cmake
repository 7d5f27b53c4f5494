# SPDX-License-Identifier: Apache-2.0
# Cross build for 64-bit ARM Linux (arm64) with Debian's crossbuild-essential-arm64:
#   scripts/cross-sysroot.sh arm64
#   cmake -S . -B build-arm64 --toolchain cmake/toolchains/aarch64-linux-gnu.cmake
# scripts/cross-build.sh arm64 does both.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(TAVREN_CROSS_TRIPLET aarch64-linux-gnu)
set(TAVREN_CROSS_ARCH arm64)
set(TAVREN_CROSS_QEMU qemu-aarch64-static)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux-common.cmake)
