#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs what building and testing libtavren needs (Debian 12, as root).
# Skips apt entirely when everything is already there.
set -euo pipefail
# Further packages may be named as arguments: scripts/install-deps.sh [PACKAGE...]
packages=(cmake make g++ pkg-config libapr1-dev uuid-dev libssl-dev libsqlite3-dev libgtest-dev libgmock-dev libbenchmark-dev iproute2 nftables "$@")
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq "${missing[@]}" >/dev/null
fi
