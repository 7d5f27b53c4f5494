#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# An application built against an earlier release runs with the library of
# this tree, as after an update in the field that rebuilds nothing: for each
# release in abi/releases, the project outside the tree (tests/consumer) as
# it stood at that release is compiled against that release's public
# headers (taken from git), linked to this tree's libtavren.so, and run
# against the stand-in broker examples/fake_broker: its message must go out
# and come back through its listener.
#   scripts/check-old-apps.sh              builds the library alone in build-abi/
#   scripts/check-old-apps.sh BUILD_DIR    uses BUILD_DIR/src/libtavren.so.*
# Needs the release commits in the repository's history (a clone, not an
# archive of the tree). Debian 12.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$(realpath -m "${1:-$root/build-abi}")
work=$(mktemp -d /tmp/tavren-check-old-apps.XXXXXX)

# shellcheck source=brokers/stand-in.sh
source "$root/scripts/brokers/stand-in.sh"
trap stop_stand_in_broker EXIT

fail() { echo "check-old-apps: $*" >&2; exit 1; }

if [ $# -eq 0 ]; then
  cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAVREN_BUILD_TESTS=OFF \
    -DTAVREN_BUILD_BENCH=OFF -DTAVREN_BUILD_EXAMPLES=OFF -DTAVREN_BUILD_TOOLS=OFF >/dev/null
  cmake --build "$dir" -j"$(nproc)" --target tavren >/dev/null
fi
library=$(find "$dir/src" -maxdepth 1 -type f -name 'libtavren.so.*.*.*' | sort | tail -1)
[ -n "$library" ] || fail "no shared libtavren in $dir/src"
echo "check-old-apps: $library"

start_stand_in_broker

status=0
# abi/releases: one release a line, "VERSION COMMIT".
while read -r version commit; do
  case $version in '' | '#'*) continue ;; esac
  git -C "$root" cat-file -e "$commit^{commit}" 2>/dev/null ||
    fail "release $version (commit $commit) is not in this repository's history"
  old=$work/$version
  mkdir -p "$old"
  git -C "$root" archive "$commit" include tests/consumer/main.cpp | tar -x -C "$old"
  # The version header as that release's build made it.
  IFS=. read -r major minor patch <<<"$version"
  sed -e "s/@PROJECT_VERSION_MAJOR@/$major/" -e "s/@PROJECT_VERSION_MINOR@/$minor/" \
    -e "s/@PROJECT_VERSION_PATCH@/$patch/" -e "s/@PROJECT_VERSION@/$version/" \
    "$old/include/tavren/Version.h.in" >"$old/include/tavren/Version.h"
  g++ -std=c++17 -O2 -Wall -Wextra -pthread -I"$old/include" "$old/tests/consumer/main.cpp" \
    -o "$old/consumer" -L"$(dirname "$library")" -ltavren || fail "the $version application did not build"
  queue=built-against-$version
  if LD_LIBRARY_PATH=$(dirname "$library") "$old/consumer" 127.0.0.1 "$port" "$queue" &&
    grep -qF "broker: received SEND for /queue/$queue" "$work/broker.log"; then
    echo "check-old-apps: an application built against $version runs with $(basename "$library")"
  else
    cat "$work/broker.log"
    echo "check-old-apps: an application built against $version FAILED with $(basename "$library")" >&2
    status=1
  fi
done <"$root/abi/releases"
exit $status
