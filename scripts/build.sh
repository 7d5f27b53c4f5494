#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Configures and builds one flavour of the tree.
#   scripts/build.sh DIR [CMAKE OPTIONS...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$1
shift
cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$dir" -j"$(nproc)"
