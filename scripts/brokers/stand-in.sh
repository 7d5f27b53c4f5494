# SPDX-License-Identifier: Apache-2.0
# Sourced by the scripts that check an installed or an updated libtavren
# (check-packages.sh, check-static.sh, check-old-apps.sh): builds
# examples/fake_broker into $work and starts it on a free port of
# 127.0.0.1. Sets broker_pid and port; its log is $work/broker.log. Needs
# $root, $work and the caller's fail().
broker_pid=

# Ends the stand-in broker if it runs, and removes $work: for the caller's
# clean-up on exit.
stop_stand_in_broker() {
  if [ -n "$broker_pid" ]; then kill "$broker_pid" 2>/dev/null || true; wait "$broker_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}

start_stand_in_broker() {
  g++ -std=c++17 -O2 -Wall -Wextra -pthread "$root/examples/fake_broker.cpp" -o "$work/fake_broker"
  "$work/fake_broker" 0 "$work/port" >"$work/broker.log" 2>&1 &
  broker_pid=$!
  for _ in $(seq 100); do [ -s "$work/port" ] && break; sleep 0.05; done
  port=$(cat "$work/port")
  [ -n "$port" ] || fail "the stand-in broker did not start"
}
