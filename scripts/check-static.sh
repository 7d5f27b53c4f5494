#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The static library as a device maker's firmware build meets it: libtavren
# built with -DBUILD_SHARED_LIBS=OFF, installed with `cmake --install` into a
# temporary prefix, and the project outside the tree (tests/consumer) linked
# to libtavren.a once through find_package(tavren) and once through
# `pkg-config --static` on a g++ command line. Each consumer must carry the
# library in itself (no libtavren.so among what it needs) and runs against
# the stand-in broker examples/fake_broker.
#   scripts/check-static.sh [BUILD_DIR]     default build-static/
# Debian 12; installs what the static link needs if missing.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$(realpath -m "${1:-$root/build-static}")
work=$(mktemp -d /tmp/tavren-check-static.XXXXXX)
start=$SECONDS

# shellcheck source=brokers/stand-in.sh
source "$root/scripts/brokers/stand-in.sh"
trap stop_stand_in_broker EXIT

fail() { echo "check-static: $*" >&2; exit 1; }

# zlib1g-dev: sqlite3.pc names -lz for a static link.
"$root/scripts/install-deps.sh" zlib1g-dev

echo "== Building libtavren.a in $dir"
cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=OFF -DTAVREN_BUILD_TESTS=OFF \
  -DTAVREN_BUILD_BENCH=OFF -DTAVREN_BUILD_EXAMPLES=OFF -DTAVREN_BUILD_TOOLS=OFF >/dev/null
cmake --build "$dir" -j"$(nproc)" --target tavren >"$dir/build.log" 2>&1 || { tail -50 "$dir/build.log"; exit 1; }

echo "== Installing it into $work/prefix"
cmake --install "$dir" --prefix "$work/prefix" >/dev/null
archive=$(find "$work/prefix" -name libtavren.a)
[ -n "$archive" ] || fail "no libtavren.a installed"
libdir=${archive%/libtavren.a}
[ -z "$(find "$work/prefix" -name 'libtavren.so*')" ] || fail "a static build installed a shared library"
for f in "$libdir/cmake/tavren/tavrenConfig.cmake" "$libdir/pkgconfig/tavren.pc" \
         "$work/prefix/include/tavren/tavren.h" "$work/prefix/include/tavren/Version.h"; do
  [ -e "$f" ] || fail "$f is not installed"
done
export PKG_CONFIG_PATH=$libdir/pkgconfig
echo "pkg-config --static: $(pkg-config --static --libs tavren)"

echo "== Starting the stand-in broker"
start_stand_in_broker

# Runs a consumer against the broker; it must not need libtavren.so.
run_consumer() {
  local binary=$1 name=$2
  if readelf -d "$binary" | grep 'NEEDED.*libtavren' >/dev/null; then
    fail "$name needs a shared libtavren: $(readelf -d "$binary" | grep NEEDED | tr -s ' ')"
  fi
  "$binary" 127.0.0.1 "$port" "$name" || fail "$name exited with $?"
  grep -qF "broker: received SEND for /queue/$name" "$work/broker.log" ||
    { cat "$work/broker.log"; fail "the broker did not receive the message of $name"; }
}

echo "== A consumer through find_package(tavren)"
cmake -S "$root/tests/consumer" -B "$work/consumer-cmake" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$work/prefix" >"$work/consumer-cmake.log" 2>&1 || { cat "$work/consumer-cmake.log"; exit 1; }
cmake --build "$work/consumer-cmake" >>"$work/consumer-cmake.log" 2>&1 || { cat "$work/consumer-cmake.log"; exit 1; }
run_consumer "$work/consumer-cmake/tavren_consumer" static-cmake

echo "== A consumer through pkg-config --static"
# shellcheck disable=SC2046 # the flags are words
g++ -std=c++17 -Wall -Wextra "$root/tests/consumer/main.cpp" -o "$work/consumer-pc" \
  $(pkg-config --static --cflags --libs tavren)
run_consumer "$work/consumer-pc" static-pc

echo "== Static library checked in $((SECONDS - start)) s"
