#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the API reference (CMake target "docs", Doxygen) and fails on any
# doxygen warning, such as a public class or operation without documentation.
#   scripts/check-docs.sh [BUILD_DIR]     default: build-docs in the tree
# The pages are in BUILD_DIR/docs/html.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$root/build-docs}
if ! command -v doxygen >/dev/null; then
  echo "Installing: doxygen"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq doxygen >/dev/null
fi
# Only the library's configuration: the headers, the generated version header.
mkdir -p "$dir"
cmake -S "$root" -B "$dir" -DTAVREN_BUILD_TESTS=OFF -DTAVREN_BUILD_BENCH=OFF \
  -DTAVREN_BUILD_EXAMPLES=OFF -DTAVREN_BUILD_TOOLS=OFF >"$dir/configure.log" 2>&1 ||
  { cat "$dir/configure.log"; exit 1; }
if ! cmake --build "$dir" --target docs; then
  echo "check-docs: doxygen reported the warnings above" >&2
  exit 1
fi
echo "check-docs: no warnings; $dir/docs/html/index.html"
