#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the Debian packages libtavren1, libtavren-dev and tavren-tools
# (Release, stripped, prefix /usr) and puts them into a folder.
#   scripts/package.sh [OUTDIR]       (default: packages/ in the tree)
# BUILD_DIR changes the build folder (default build-package/ in the tree).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${1:-$root/packages}
build=${BUILD_DIR:-$root/build-package}

"$root/scripts/install-deps.sh"
# CPack asks dpkg-shlibdeps (dpkg-dev) for the packages' library dependencies
# and file for which installed files are ELF objects.
missing=()
for p in dpkg-dev file; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
fi

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DTAVREN_BUILD_TESTS=OFF -DTAVREN_BUILD_BENCH=OFF -DTAVREN_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j"$(nproc)"
rm -rf "$build/packages"
(cd "$build" && cpack -G DEB >/dev/null)
mkdir -p "$out"
rm -f "$out"/libtavren1_*.deb "$out"/libtavren-dev_*.deb "$out"/tavren-tools_*.deb
cp "$build"/packages/*.deb "$out"/
for deb in "$out"/*.deb; do
  echo "$deb ($(stat -c %s "$deb") bytes)"
done
