#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# A long run for operators: a producer with a file outbox and a consumer,
# each with the three nodes of scripts/rabbitmq-cluster.sh as its brokers and
# heart-beats on, send and receive 100 messages a second for MINUTES
# (default 5) while a random node is killed with SIGKILL every
# TAVREN_FIELD_KILL_SECONDS (default 90; the first half that in) and started
# again. Run as root, both clients reach the nodes through a bad link (relays
# in a network namespace behind a veth pair that loses
# TAVREN_FIELD_LOSS_PERCENT, default 2, of its packets each way and goes down
# for 15 s every TAVREN_FIELD_OUTAGE_SECONDS, default 240); without root they
# use loopback and the summary says so.
# It prints one summary line: sent, confirmed, received, duplicates,
# lost (must be 0), reconnects, the worst recovery time (from a kill to the
# next confirmed and the next received message) and the process's resident
# memory and threads at the start, after the first minute and at the end.
# It fails when a message was lost, came out of order or a node crash was
# not bridged within a minute.
#
#   scripts/field-soak.sh        5 minutes, two node crashes
#   scripts/field-soak.sh 60     an hour
#
# The cluster is started when it does not run, and then stopped at the end;
# a cluster that ran already is left running.
#
# Environment:
#   TAVREN_FIELD_BUILD_DIR     build folder (default build-field/); an existing,
#                              configured one (build-test-plain/, say) is reused as it is
#   TAVREN_FIELD_KILL_SECONDS  seconds between node crashes (default 90)
#   TAVREN_FIELD_LOSS_PERCENT  packets lost at random each way on the bad link (default 2; 0 for none)
#   TAVREN_FIELD_OUTAGE_SECONDS  seconds between the bad link's 15 s outages (default 240; 0 for none)
#   TAVREN_BUILD_JOBS          parallel compile jobs (default 2)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
minutes=${1:-5}
[[ $minutes =~ ^[0-9]+$ ]] && [ "$minutes" -ge 2 ] || { echo "usage: $0 [MINUTES, at least 2]" >&2; exit 2; }

"$root/scripts/install-deps.sh"
"$root/scripts/install-brokers.sh"

dir=${TAVREN_FIELD_BUILD_DIR:-$root/build-field}
jobs=${TAVREN_BUILD_JOBS:-2}
echo "== Building the field test in $dir"
mkdir -p "$dir"
if [ ! -f "$dir/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAVREN_BUILD_BENCH=OFF \
    -DTAVREN_BUILD_EXAMPLES=OFF -DTAVREN_BUILD_TOOLS=OFF >"$dir/field-build.log" 2>&1 \
    || { tail -50 "$dir/field-build.log"; exit 1; }
fi
cmake --build "$dir" --target test_ClusterLong -j"$jobs" >>"$dir/field-build.log" 2>&1 \
  || { tail -50 "$dir/field-build.log"; exit 1; }

started=0
if ! bash "$root/scripts/rabbitmq-cluster.sh" status >/dev/null 2>&1; then
  bash "$root/scripts/rabbitmq-cluster.sh" start
  started=1
fi
finish() { [ $started = 1 ] && bash "$root/scripts/rabbitmq-cluster.sh" stop || true; }
trap finish EXIT

echo "== Field soak: $minutes minutes through the cluster, a random node killed every ${TAVREN_FIELD_KILL_SECONDS:-90} s"
TAVREN_FIELD_SOAK_SECONDS=$((minutes * 60)) TAVREN_FIELD_KILL_SECONDS=${TAVREN_FIELD_KILL_SECONDS:-90} \
  "$dir/tests/test_ClusterLong" --gtest_filter='Cluster.Soak*' --gtest_output="xml:$dir/field-soak.xml"
