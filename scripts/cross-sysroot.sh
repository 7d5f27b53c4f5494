#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Prepares what a cross build for an ARM device needs (Debian 12, as root):
# the cross compiler and qemu-user-static from the host's packages, and a
# sysroot folder with the target's APR, libuuid, OpenSSL, SQLite and GoogleTest.
#   scripts/cross-sysroot.sh ARCH        ARCH: arm64 or armhf
# Prints the sysroot's path on its last line.
#
# The target's packages are fetched with `apt-get download` against a private
# apt state (its own lists and cache, the target as its only architecture)
# and unpacked with `dpkg -x`: nothing is installed for the target and the
# host's dpkg architectures stay as they are. Debian's libapr1-dev is not
# multi-arch, so installing the target's would remove the host's; this way
# both builds work side by side.
# TAVREN_CROSS_DIR (default /var/tmp/tavren-cross) holds ARCH/sysroot.
set -euo pipefail
arch=${1:?usage: cross-sysroot.sh arm64|armhf}
case $arch in
  arm64) triplet=aarch64-linux-gnu ;;
  armhf) triplet=arm-linux-gnueabihf ;;
  *) echo "unknown architecture: $arch (arm64 or armhf)" >&2; exit 2 ;;
esac
base=${TAVREN_CROSS_DIR:-/var/tmp/tavren-cross}/$arch
sysroot=$base/sysroot
# What the target's build links and its tests need at run time.
target_packages=(libapr1-dev libapr1 uuid-dev libuuid1 libcrypt1 libssl-dev libssl3 libsqlite3-dev libsqlite3-0 libgtest-dev libgmock-dev)

host_packages=(cmake make pkg-config "crossbuild-essential-$arch" qemu-user-static)
missing=()
for p in "${host_packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
export DEBIAN_FRONTEND=noninteractive
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}" >&2
  apt-get -o DPkg::Lock::Timeout=300 update -qq >&2
  apt-get -o DPkg::Lock::Timeout=300 install -y -qq "${missing[@]}" >/dev/null
fi

stamp=$sysroot/.tavren-packages
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "${target_packages[*]}" ]; then
  echo "$sysroot"
  exit 0
fi

echo "Fetching the $arch packages: ${target_packages[*]}" >&2
rm -rf "$base/apt" "$base/debs" "$sysroot"
mkdir -p "$base/apt/lists/partial" "$base/apt/cache/archives/partial" "$base/debs" "$sysroot"
: >"$base/apt/status"
apt_target=(
  -o "APT::Architecture=$arch" -o "APT::Architectures::=$arch"
  -o "Dir::State::Lists=$base/apt/lists" -o "Dir::Cache=$base/apt/cache"
  -o "Dir::State::status=$base/apt/status" -o "APT::Sandbox::User=root"
)
# A mirror that is being synced may fail one of the indexes (the security
# one, say): go on with the others; the download fails if it needed it.
apt-get "${apt_target[@]}" update -qq >&2 || echo "Some $arch indexes failed; trying with the others" >&2
(cd "$base/debs" && apt-get "${apt_target[@]}" download "${target_packages[@]}" >&2)
for deb in "$base"/debs/*.deb; do
  dpkg -x "$deb" "$sysroot"
done
# Links that point at an absolute path would leave the sysroot.
find "$sysroot" -type l -lname '/*' | while read -r link; do
  ln -sfn "$sysroot$(readlink "$link")" "$link"
done
test -f "$sysroot/usr/lib/$triplet/pkgconfig/apr-1.pc"
echo "${target_packages[*]}" >"$stamp"
echo "$sysroot"
