#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Soak against the real brokers: tests/soak/test_BrokerRestartSoak.cpp runs
# against RabbitMQ, then against ActiveMQ, each for its share of SECONDS
# (default 60, so 30 s each) of steady traffic, with the broker stopped and
# started every 30 s (the first time 10 s in). It fails when a message the
# broker accepted never arrived, or when the process's file descriptors,
# threads, resident memory or heap grew.
#
#   scripts/soak.sh              about 1 minute of traffic, one restart of each broker
#   scripts/soak.sh 600          10 minutes (5 per broker, 10 restarts of each)
#
# Each run also takes a warm-up and a drain of about 10 s, and the brokers'
# own starts and stops. A broker that is not running is started before its
# run and stopped after it; one that ran already is left running (the soak
# restarts it all the same). Nobody else may use the brokers meanwhile.
#
# Environment:
#   TAVREN_SOAK_BROKERS       the brokers, in order (default "rabbitmq activemq")
#   TAVREN_SOAK_BUILD_DIR     build folder (default build-soak/); an existing,
#                             configured one (build-test-plain/, say) is reused as it is
#   TAVREN_BUILD_JOBS         parallel compile jobs (default 2)
#   TAVREN_BROKER_SOAK_RATE, TAVREN_BROKER_SOAK_RESTART_EVERY and the protocol
#   versions: see the head of the test.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
total=${1:-60}
read -r -a brokers <<< "${TAVREN_SOAK_BROKERS:-rabbitmq activemq}"
[[ $total =~ ^[0-9]+$ ]] || { echo "usage: $0 [SECONDS]" >&2; exit 2; }
[ ${#brokers[@]} -gt 0 ] || { echo "TAVREN_SOAK_BROKERS names no broker" >&2; exit 2; }
per=$((total / ${#brokers[@]}))
# The first stop comes 10 s in and the broker needs about 15 s more to be
# back and serve traffic again.
if [ "$per" -lt 25 ]; then
  echo "$total s for ${#brokers[@]} broker(s) is $per s each; a restart needs at least 25 s" >&2
  exit 2
fi
for broker in "${brokers[@]}"; do
  case $broker in
    rabbitmq) ;;
    activemq) ;;
    *) echo "unknown broker: $broker (rabbitmq or activemq)" >&2; exit 2 ;;
  esac
done

"$root/scripts/install-deps.sh"
"$root/scripts/install-brokers.sh"

dir=${TAVREN_SOAK_BUILD_DIR:-$root/build-soak}
jobs=${TAVREN_BUILD_JOBS:-2}
echo "== Building the soak test in $dir"
mkdir -p "$dir"
if [ ! -f "$dir/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAVREN_BUILD_BENCH=OFF \
    -DTAVREN_BUILD_EXAMPLES=OFF -DTAVREN_BUILD_TOOLS=OFF >"$dir/soak-build.log" 2>&1 \
    || { tail -50 "$dir/soak-build.log"; exit 1; }
fi
cmake --build "$dir" --target test_BrokerRestartSoak -j"$jobs" >>"$dir/soak-build.log" 2>&1 \
  || { tail -50 "$dir/soak-build.log"; exit 1; }
binary=$dir/tests/test_BrokerRestartSoak

# Stops a broker this script started, also when it is interrupted.
started=
stop_started() {
  if [ -n "$started" ]; then bash "$root/scripts/$started.sh" stop || true; fi
  started=
}
trap stop_started EXIT

status=0
summary=()
for broker in "${brokers[@]}"; do
  case $broker in
    rabbitmq) name=RabbitMQ ;;
    activemq) name=ActiveMQ ;;
  esac
  if bash "$root/scripts/$broker.sh" status >/dev/null 2>&1; then
    echo "[$broker] already running; it is left running at the end"
  else
    bash "$root/scripts/$broker.sh" start
    started=$broker
  fi
  log=$dir/soak-$broker.log
  echo "== Soak against $name: $per s (log: $log)"
  start=$SECONDS
  result=0
  # The test's watchdog ends a hung run; this is the last resort beyond it.
  TAVREN_BROKER_SOAK_SECONDS=$per timeout --kill-after=30 $((per + 2400)) \
    "$binary" --gtest_filter="RealBrokers/BrokerRestartSoak.*/$name" 2>&1 | tee "$log" || result=$?
  if ! grep -q '^\[  PASSED  \] 1 test' "$log" && [ "$result" = 0 ]; then result=1; fi
  summary+=("$name: $([ "$result" = 0 ] && echo passed || echo FAILED) in $((SECONDS - start)) s")
  while IFS= read -r line; do summary+=("  $line"); done < <(grep '^SOAK ' "$log" || true)
  [ "$result" = 0 ] || status=1
  stop_started
done

echo
echo "== Soak figures"
printf '%s\n' "${summary[@]}"
exit $status
