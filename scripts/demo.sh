#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The main job: builds libtavren, starts RabbitMQ with STOMP on loopback and
# runs the example application against it: it sends messages to a queue and
# prints each one as its listener receives it, with the library's own log
# lines ("[tavren] ..."). The broker is stopped again at the end (one that
# already ran before is left running). Works as root on Debian 12.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
port=${TAVREN_RABBITMQ_PORT:-61623}
count=${DEMO_COUNT:-5}

echo "== Installing what the build and the broker need"
"$root/scripts/install-deps.sh"
source "$root/scripts/brokers/for-tests.sh"

echo "== Building libtavren in $build"
"$root/scripts/build.sh" "$build" -DTAVREN_BUILD_TESTS=OFF -DTAVREN_BUILD_BENCH=OFF | grep -E "Built target (tavren|queue_demo)$" || true

echo "== Starting RabbitMQ with STOMP on 127.0.0.1:$port"
start_brokers rabbitmq

echo "== Exchanging $count messages through RabbitMQ (examples/queue_demo.cpp)"
timeout 120 "$build/examples/queue_demo" 127.0.0.1 "$port" tavren-demo "$count" guest guest

echo "== Stopping RabbitMQ"
stop_brokers
echo "== Done"
