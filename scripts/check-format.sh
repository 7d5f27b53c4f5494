#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks that the C++ sources follow .clang-format (clang-format 14, Debian's
# clang-format package): every *.cpp and *.h under src include tests bench
# examples fuzz tools, or only the files given. Changes nothing; prints the
# files that differ and fails if there are any.
#   scripts/check-format.sh [FILE...]
# To format a file: clang-format -i FILE
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
if ! command -v clang-format >/dev/null; then
  echo "Installing: clang-format"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq clang-format >/dev/null
fi
if [ $# -gt 0 ]; then
  files=("$@")
else
  mapfile -t files < <(find src include tests bench examples fuzz tools \
    \( -name '*.cpp' -o -name '*.h' \) -type f 2>/dev/null | sort)
fi
differing=()
for f in "${files[@]}"; do
  if ! clang-format --dry-run -Werror --style=file "$f" >/dev/null 2>&1; then
    differing+=("$f")
  fi
done
if [ ${#differing[@]} -gt 0 ]; then
  printf '%s\n' "${differing[@]}"
  echo "check-format: ${#differing[@]} of ${#files[@]} files differ from .clang-format (clang-format -i FILE fixes one)" >&2
  exit 1
fi
echo "check-format: ${#files[@]} files follow .clang-format"
