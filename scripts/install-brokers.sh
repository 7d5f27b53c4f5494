#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the brokers that the demo and the integration tests talk to:
# Debian's rabbitmq-server (its STOMP plugin ships with it) and activemq, and
# openssl, with which scripts/brokers/tls-certs.sh makes their test
# certificates (its keytool comes with the Java that activemq brings).
# Works as root on Debian 12 without systemd; skips apt when all are there.
# The packages would try to start their services at install; a policy-rc.d
# that refuses keeps them from it (scripts/rabbitmq.sh and scripts/activemq.sh
# start the brokers with the settings libtavren's tests need). A policy-rc.d
# the machine has already is left alone.
set -euo pipefail
packages=(rabbitmq-server activemq openssl)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

policy=/usr/sbin/policy-rc.d
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\n# Written by libtavren'\''s install-brokers.sh for the length of an install.\nexit 101\n' > "$policy"
  chmod +x "$policy"
  trap 'rm -f "$policy"' EXIT
fi
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq "${missing[@]}" >/dev/null
