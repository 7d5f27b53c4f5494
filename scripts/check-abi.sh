#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Compares the ABI of the library this tree builds with the ABI of every
# release of the same soname recorded in abi/ (libabigail's abidiff, with the
# suppressions of abi/tavren.abignore): an application built against any of
# them must run with this library. Fails on any change to what those releases
# exported (a removed or changed function, a changed layout of a public class,
# a moved virtual function); new functions and new types are fine.
#   scripts/check-abi.sh                 builds the library alone in build-abi/
#   scripts/check-abi.sh BUILD_DIR       uses BUILD_DIR/src/libtavren.so.* (built with -g)
#   scripts/check-abi.sh --record [BUILD_DIR]
#                                        writes abi/libtavren-<version>.abi for a release
# Debian 12; installs abigail-tools if needed.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
record=0
if [ "${1:-}" = --record ]; then record=1; shift; fi
dir=${1:-$root/build-abi}
suppressions=$root/abi/tavren.abignore

"$root/scripts/install-deps.sh" abigail-tools

if [ $# -eq 0 ]; then
  # Debug information is what abidiff reads the types from.
  cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAVREN_BUILD_TESTS=OFF \
    -DTAVREN_BUILD_BENCH=OFF -DTAVREN_BUILD_EXAMPLES=OFF -DTAVREN_BUILD_TOOLS=OFF >/dev/null
  cmake --build "$dir" -j"$(nproc)" --target tavren >/dev/null
fi
library=$(find "$dir/src" -maxdepth 1 -type f -name 'libtavren.so.*.*.*' | sort | tail -1)
[ -n "$library" ] || { echo "check-abi: no shared libtavren in $dir/src" >&2; exit 1; }
readelf -S "$library" | grep '\.debug_info' >/dev/null ||
  { echo "check-abi: $library has no debug information (build with RelWithDebInfo or Debug)" >&2; exit 1; }
soname=$(readelf -d "$library" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
version=${library##*/libtavren.so.}
major=${soname##*.so.}
echo "check-abi: $library (soname $soname)"

if [ "$record" = 1 ]; then
  out=$root/abi/libtavren-$version.abi
  # Translation units are named relative to the source tree, not the machine.
  source_dir=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$dir/CMakeCache.txt")
  abidw --suppressions "$suppressions" --no-corpus-path --no-comp-dir-path --no-show-locs "$library" |
    sed "s|path='$source_dir/|path='|" >"$out"
  echo "check-abi: recorded $out"
  exit 0
fi

baselines=("$root"/abi/libtavren-"$major".*.abi)
if [ ! -e "${baselines[0]}" ]; then
  # A new soname starts a new promise: record its first release with --record.
  echo "check-abi: no release of soname $soname is recorded in abi/: nothing to compare"
  exit 0
fi
status=0
for baseline in "${baselines[@]}"; do
  name=${baseline##*/}
  # abidiff's exit status is a bit field (1 error, 2 usage, 4 change, 8
  # incompatible change). Without the added functions and variables
  # (--no-added-syms), and after the suppressions, any change left is to
  # something a release exported.
  rc=0 virtuals=""
  abidiff --no-added-syms --suppressions "$suppressions" "$baseline" "$library" >"$dir/abidiff-$name.txt" 2>&1 || rc=$?
  # abidiff counts a virtual function replaced in the same slot of the vtable
  # (a changed parameter of Listener::onMessage, say) among the harmless
  # changes it leaves out by default: with --harmless it lists the virtual
  # functions a class lost or gained, and any of those breaks the classes
  # applications derive from and the calls through their slots.
  if [ "$rc" = 0 ]; then
    abidiff --harmless --no-added-syms --suppressions "$suppressions" "$baseline" "$library" \
      >"$dir/abidiff-harmless-$name.txt" 2>&1 || true
    virtuals=$(grep 'virtual at voffset' "$dir/abidiff-harmless-$name.txt" | sed 's/^ */  /' | awk '!seen[$0]++' || true)
  fi
  if [ -n "$virtuals" ]; then
    echo "Virtual functions removed from or added to a class of ${name%.abi} (abidiff --harmless):"
    echo "$virtuals"
    echo "check-abi: INCOMPATIBLE with ${name%.abi} while the soname is still $soname (a changed vtable);" \
      "see CONTRIBUTING.md, \"The ABI of libtavren.so.1\"" >&2
    status=1
  elif [ "$rc" = 0 ]; then
    added=$(abidiff --suppressions "$suppressions" "$baseline" "$library" 2>&1 |
      sed -n 's/.*Functions changes summary: .*, \([0-9]*\) Added.*/\1/p' || true)
    echo "check-abi: compatible with ${name%.abi} (${added:-0} functions added)"
  else
    cat "$dir/abidiff-$name.txt"
    if [ $((rc & 3)) != 0 ]; then
      echo "check-abi: abidiff failed (exit status $rc)" >&2
    else
      echo "check-abi: INCOMPATIBLE with ${name%.abi} while the soname is still $soname (abidiff exit status $rc);" \
        "see CONTRIBUTING.md, \"The ABI of libtavren.so.1\"" >&2
    fi
    status=1
  fi
done
exit $status
