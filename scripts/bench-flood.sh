#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The client's own cost of receiving: each way of delivery (a thread per
# message, a pool of 1 and of 4 threads, a pool of 4 with in-order delivery)
# and the raw floor receive and acknowledge N messages of 100 bytes from
# bench/compare/flood_server.cpp, a stand-in broker that sends as fast as the
# client reads (no broker's CPU in the figures). Runs interleaved, REPS
# times each, and prints the median rate and CPU (user + system) per message.
# Not part of CI; about a minute. Works as root on Debian 12 (needs GNU time).
#
#   scripts/bench-flood.sh [N [REPS]]      default 20000 messages, 5 repetitions
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
n=${1:-20000}
reps=${2:-5}
build=$root/build-bench
bin=$build/compare/bin
"$root/scripts/install-deps.sh" time
echo "== Building libtavren (Release) in $build and the programs in $bin"
mkdir -p "$bin"
"$root/scripts/build.sh" "$build" -DCMAKE_BUILD_TYPE=Release -DTAVREN_BUILD_TESTS=OFF \
  -DTAVREN_BUILD_BENCH=OFF -DTAVREN_BUILD_EXAMPLES=OFF >"$build/flood-build.log" 2>&1 \
  || { tail -40 "$build/flood-build.log"; exit 1; }
lib=$(dirname "$(find "$build" -name 'libtavren.so' -print -quit)")
cxx=(g++ -O2 -std=c++17 -Wall -Wextra -pthread)
for program in floor_client flood_server; do
  "${cxx[@]}" -o "$bin/$program" "$root/bench/compare/$program.cpp"
done
"${cxx[@]}" -I"$root/include" -I"$build/include" -o "$bin/tavren_client" "$root/bench/compare/tavren_client.cpp" \
  -L"$lib" -ltavren -Wl,-rpath,"$lib"

# One run: prints "seconds cpu_seconds" (the server's time from the first
# MESSAGE to the last answer; the client's user + system time).
run_once() {
  local client=$1
  shift
  local out
  out=$(mktemp -d)
  "$bin/flood_server" "$n" >"$out/server" &
  local server=$!
  local port=
  for _ in $(seq 100); do
    port=$(sed -n 's/^PORT //p' "$out/server")
    [ -n "$port" ] && break
    sleep 0.05
  done
  echo | env "$@" /usr/bin/time -f "%U %S" -o "$out/time" "$bin/$client" receive 127.0.0.1 "$port" 1.2 q "$n" \
    >"$out/client" 2>&1 || true
  for _ in $(seq 200); do
    grep -q '^DONE' "$out/server" && break
    sleep 0.05
  done
  kill "$server" 2>/dev/null || true
  wait "$server" 2>/dev/null || true
  local seconds
  seconds=$(awk '/^DONE/ {print $4}' "$out/server")
  [ -n "$seconds" ] || { echo "not every message was answered: $(cat "$out/server")" >&2; exit 1; }
  echo "$seconds $(awk '{print $1 + $2}' "$out/time")"
  rm -rf "$out"
}

names=("raw floor (C++)" "libtavren, a thread per message" "libtavren, pool of 1" "libtavren, pool of 4"
       "libtavren, pool of 4, in order")
results=$(mktemp)
for rep in $(seq "$reps"); do
  echo "-- repetition $rep of $reps"
  echo "0 $(run_once floor_client)" >>"$results"
  echo "1 $(run_once tavren_client)" >>"$results"
  echo "2 $(run_once tavren_client BENCH_TAVREN_POOL=1)" >>"$results"
  echo "3 $(run_once tavren_client BENCH_TAVREN_POOL=4)" >>"$results"
  echo "4 $(run_once tavren_client BENCH_TAVREN_POOL=4 BENCH_TAVREN_ORDERED=1)" >>"$results"
done
echo
echo "Receive + ACK of $n messages from the flood server, medians of $reps:"
echo
echo "| client | msg/s | CPU µs/msg |"
echo "|---|---:|---:|"
for i in "${!names[@]}"; do
  seconds=$(awk -v i="$i" '$1 == i {print $2}' "$results" | sort -g | awk '{a[NR] = $1} END {print a[int((NR + 1) / 2)]}')
  cpu=$(awk -v i="$i" '$1 == i {print $3}' "$results" | sort -g | awk '{a[NR] = $1} END {print a[int((NR + 1) / 2)]}')
  awk -v name="${names[$i]}" -v s="$seconds" -v c="$cpu" -v n="$n" \
    'BEGIN {printf "| %s | %d | %.1f |\n", name, n / s, c * 1e6 / n}'
done
rm -f "$results"
