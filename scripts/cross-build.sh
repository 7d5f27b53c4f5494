#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Cross-builds libtavren for an ARM device (Release, no sanitizers): the
# library and the unit tests. With "test", runs the unit tests under
# qemu-user-static as well.
#   scripts/cross-build.sh arm64|armhf [test]
# The build folder is build-cross-ARCH in the tree (TAVREN_CROSS_BUILD_DIR
# changes it); the stripped library's size is printed at the end.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
arch=${1:?usage: cross-build.sh arm64|armhf [test]}
run_tests=${2:-}
case $arch in
  arm64) triplet=aarch64-linux-gnu ;;
  armhf) triplet=arm-linux-gnueabihf ;;
  *) echo "unknown architecture: $arch (arm64 or armhf)" >&2; exit 2 ;;
esac
case $run_tests in
  ""|test) ;;
  *) echo "usage: cross-build.sh arm64|armhf [test]" >&2; exit 2 ;;
esac

sysroot=$("$root/scripts/cross-sysroot.sh" "$arch" | tail -1)
dir=${TAVREN_CROSS_BUILD_DIR:-$root/build-cross-$arch}
jobs=$(nproc)
[ "$jobs" -gt 2 ] && jobs=2

echo "== Cross-building for $arch in $dir"
mkdir -p "$dir"
cmake -S "$root" -B "$dir" \
  --toolchain "$root/cmake/toolchains/$triplet.cmake" \
  -DTAVREN_CROSS_SYSROOT="$sysroot" \
  -DCMAKE_BUILD_TYPE=Release \
  -DTAVREN_BUILD_TESTS=ON -DTAVREN_BUILD_BENCH=OFF -DTAVREN_BUILD_EXAMPLES=OFF \
  -DTAVREN_BUILD_TOOLS=OFF >"$dir/configure.log" 2>&1 || { cat "$dir/configure.log"; exit 1; }
targets=(tavren)
[ "$run_tests" = test ] && targets+=(tests_unit)
cmake --build "$dir" -j"$jobs" --target "${targets[@]}"

library=$(find "$dir" -name 'libtavren.so.*.*' -type f | head -1)
file -b "$library" 2>/dev/null || true
"$triplet-strip" -o "$dir/libtavren.stripped.so" "$library"
echo "libtavren.so for $arch: $(stat -c %s "$library") bytes, $(stat -c %s "$dir/libtavren.stripped.so") stripped"

if [ "$run_tests" = test ]; then
  echo "== Unit tests ($arch, under qemu)"
  # Tests that measure the process's own memory skip themselves under qemu.
  export TAVREN_UNDER_EMULATION=1
  status=0
  (cd "$dir" && ctest --output-on-failure -j"$jobs" --timeout 300 -L unit) || status=$?
  echo "Skipped, and why:"
  grep -h -B1 "under emulation:" "$dir/Testing/Temporary/LastTest.log" | grep -v '^--$' | sed 's/^/  /' || true
  exit $status
fi
