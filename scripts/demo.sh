#!/usr/bin/env bash
# The main job: builds libtavren and exchanges messages with a local broker.
# For now the broker is a small stand-in (examples/fake_broker.cpp) started
# on a free loopback port and stopped again by its PID.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}

"$root/scripts/install-deps.sh"
echo "== Building libtavren in $build"
"$root/scripts/build.sh" "$build" -DTAVREN_BUILD_TESTS=OFF -DTAVREN_BUILD_BENCH=OFF | grep -E "Built target (tavren|fake_broker|queue_demo)" || true

portfile=$(mktemp)
"$build/examples/fake_broker" 0 "$portfile" &
broker=$!
trap 'kill "$broker" 2>/dev/null || true; wait "$broker" 2>/dev/null || true; rm -f "$portfile"' EXIT
for _ in $(seq 50); do [ -s "$portfile" ] && break; sleep 0.1; done
port=$(cat "$portfile")

echo "== Exchanging messages with the broker on 127.0.0.1:$port"
timeout 60 "$build/examples/queue_demo" 127.0.0.1 "$port" demo 3
sleep 0.2
echo "== Done"
