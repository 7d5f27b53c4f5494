# SPDX-License-Identifier: Apache-2.0
# Sourced by scripts that need both real brokers for a while: installs them,
# starts the ones not running yet and, on exit, stops exactly those it
# started. A broker that already ran before is left running.
started_brokers=()
start_brokers() {
  "$root/scripts/install-brokers.sh"
  local broker
  for broker in "$@"; do
    if bash "$root/scripts/$broker.sh" status >/dev/null 2>&1; then
      echo "[$broker] already running; it is left running at the end"
    else
      bash "$root/scripts/$broker.sh" start
      started_brokers+=("$broker")
    fi
  done
  trap stop_brokers EXIT
}
stop_brokers() {
  local broker
  for broker in "${started_brokers[@]}"; do bash "$root/scripts/$broker.sh" stop || true; done
  started_brokers=()
}
