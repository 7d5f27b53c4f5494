#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Benchmarks libtavren against a raw-socket floor and four STOMP clients of
# other languages (stomp.py, Net::Stomp, the Ruby stomp gem, @stomp/stompjs on
# Node) on RabbitMQ and ActiveMQ, and writes docs/performance.md and
# docs/performance.png. Not part of CI; takes about a quarter of an hour.
# Works as root on Debian 12.
#
#   scripts/bench.sh
#
# Installs what it needs (@stomp/stompjs and @stomp/tcp-wrapper with npm into
# build-bench/compare/node, at the versions pinned below), builds libtavren
# (Release) in build-bench/ and the comparison programs of bench/compare/
# against it, starts the brokers that are not running yet (and stops those
# again at the end), and runs bench/compare/driver.py. For a quick run:
#   BENCH_REPS=1 BENCH_N=2000 BENCH_BACKLOG_N=5000 BENCH_RT=50 scripts/bench.sh
#   BENCH_ONLY=send,receive scripts/bench.sh
# A run with any of these set writes its report to build-bench/compare/docs/
# instead of docs/ (BENCH_OUT=DIR chooses). BENCH_TREE=DIR measures the
# library of another checkout (built in DIR/build-bench), for instance an
# export of one commit (git archive HEAD | tar -x -C DIR) while the working
# tree has edits in progress; BENCH_LIB_DESC then says what it is.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
tree=$(cd "${BENCH_TREE:-$root}" && pwd)
build=$tree/build-bench
work=$build/compare
started=$SECONDS

echo "== Installing what the benchmark needs"
"$root/scripts/install-deps.sh" python3-stomp libnet-stomp-perl ruby-stomp gnuplot-nox
# Node and npm from Debian, unless the machine has them already (a Node of
# another origin ships its own npm, which Debian's npm package conflicts with).
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
  "$root/scripts/install-deps.sh" nodejs npm
fi
node_modules=$work/node/node_modules
stompjs_packages=(@stomp/stompjs@7.5.0 @stomp/tcp-wrapper@1.0.1)
installed_version() { # the version of package $1 in $node_modules, or nothing
  node -p "require('$node_modules/$1/package.json').version" 2>/dev/null || true
}
for package in "${stompjs_packages[@]}"; do
  if [ "$(installed_version "${package%@*}")" != "${package##*@}" ]; then
    echo "Installing ${stompjs_packages[*]} with npm in $work/node"
    mkdir -p "$work/node"
    npm install --prefix "$work/node" --save-exact --no-audit --no-fund "${stompjs_packages[@]}" >"$work/npm.log" 2>&1 \
      || { tail -40 "$work/npm.log"; exit 1; }
    break
  fi
done
versions=
for package in "${stompjs_packages[@]}"; do
  versions+="${package%@*} $(installed_version "${package%@*}"), "
done
echo "${versions}Node $(node --version)"

echo "== Building libtavren (Release) in $build"
mkdir -p "$work/bin"
"$tree/scripts/build.sh" "$build" -DCMAKE_BUILD_TYPE=Release -DTAVREN_BUILD_TESTS=OFF \
  -DTAVREN_BUILD_BENCH=OFF -DTAVREN_BUILD_EXAMPLES=OFF > "$work/build.log" 2>&1 \
  || { tail -40 "$work/build.log"; exit 1; }
lib=$(dirname "$(find "$build" -name 'libtavren.so' -print -quit)")
[ -n "$lib" ] || { echo "libtavren.so not found in $build"; exit 1; }

echo "== Building the comparison programs (bench/compare) in $work/bin"
cxx=(g++ -O2 -std=c++17 -Wall -Wextra -pthread)
for program in floor_client ack_relay discard_server; do
  "${cxx[@]}" -o "$work/bin/$program" "$root/bench/compare/$program.cpp"
done
# libtavren's client sees the public headers only (and the generated ones of the build).
"${cxx[@]}" -I"$tree/include" -I"$build/include" -o "$work/bin/tavren_client" "$root/bench/compare/tavren_client.cpp" \
  -L"$lib" -ltavren -Wl,-rpath,"$lib"

echo "== Starting the brokers"
source "$root/scripts/brokers/for-tests.sh"
start_brokers rabbitmq activemq

quick=0
for v in BENCH_REPS BENCH_N BENCH_BACKLOG_N BENCH_RT BENCH_ONLY BENCH_ACKDELAY_RATE BENCH_BACKLOG_CLIENTS BENCH_CLIENTS; do
  [ -n "${!v:-}" ] && quick=1
done
if [ -z "${BENCH_OUT+set}" ]; then
  if [ $quick = 1 ]; then BENCH_OUT=$work/docs; else BENCH_OUT=$root/docs; fi
fi
if [ -z "${BENCH_LIB_DESC:-}" ] && git -C "$tree" rev-parse HEAD >/dev/null 2>&1; then
  BENCH_LIB_DESC="commit $(git -C "$tree" rev-parse --short HEAD)"
  git -C "$tree" diff --quiet HEAD -- src include CMakeLists.txt || BENCH_LIB_DESC+=" with uncommitted changes"
fi
command="scripts/bench.sh"
for v in BENCH_TREE BENCH_REPS BENCH_N BENCH_BACKLOG_N BENCH_RT BENCH_ONLY BENCH_ACKDELAY_RATE BENCH_BACKLOG_CLIENTS BENCH_CLIENTS; do
  [ -n "${!v:-}" ] && command="$v=$(printf %q "${!v}") $command"
done
command=${BENCH_COMMAND:-$command}

echo "== Running the comparison (logs in $work/run)"
rm -rf "$work/run"
BENCH_BIN=$work/bin BENCH_NODE_MODULES=$node_modules BENCH_WORK=$work/run BENCH_OUT=$BENCH_OUT BENCH_COMMAND=$command \
  BENCH_LIB_DESC=${BENCH_LIB_DESC:-} /usr/bin/python3 "$root/bench/compare/driver.py"

# A run of chosen workloads (BENCH_ONLY) leaves the outbox's out.
if [ -z "${BENCH_ONLY:-}" ]; then
  echo "== Sending with an outbox (scripts/bench-outbox.sh)"
  BENCH_OUT=$BENCH_OUT "$root/scripts/bench-outbox.sh"
fi

echo "== Stopping the brokers this script started"
stop_brokers
echo "== Done in $(( (SECONDS - started) / 60 )) min $(( (SECONDS - started) % 60 )) s"
