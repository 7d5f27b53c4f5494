#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the whole test suite: a plain build, then the same tests built with
# AddressSanitizer+UndefinedBehaviorSanitizer and with ThreadSanitizer. The
# integration tests (label "integration") talk to RabbitMQ and ActiveMQ on
# loopback: this script installs both, starts each once for the whole run and
# stops them at the end (one that already ran is left running).
#   scripts/test.sh            all three
#   scripts/test.sh plain      only the plain build (also: asan, tsan)
#   TAVREN_SKIP_INTEGRATION=1 scripts/test.sh   without brokers and their tests
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
if [ $# -gt 0 ]; then flavours=("$@"); else flavours=(plain asan tsan); fi

"$root/scripts/install-deps.sh"
# The soak (label "soak") restarts the brokers for minutes: scripts/soak.sh runs it.
# Tests of the label "long" (executables test_<Name>Long) run for minutes:
# only the plain build runs them.
excluded=soak
if [ "${TAVREN_SKIP_INTEGRATION:-0}" = 1 ]; then
  excluded='integration|soak'
else
  source "$root/scripts/brokers/for-tests.sh"
  start_brokers rabbitmq activemq
fi
# The tests of the label "cluster" (plain build only, they are "long" too)
# kill and restart the nodes of a three-node RabbitMQ cluster
# (scripts/rabbitmq-cluster.sh): it is started for the plain run only (about
# 40 s and 1.5 GB of memory) and stopped after it, unless it ran already.
cluster_started=0
start_cluster() {
  [ "${TAVREN_SKIP_INTEGRATION:-0}" = 1 ] && return 0
  bash "$root/scripts/rabbitmq-cluster.sh" status >/dev/null 2>&1 && return 0
  bash "$root/scripts/rabbitmq-cluster.sh" start
  cluster_started=1
}
stop_cluster() {
  [ $cluster_started = 1 ] && bash "$root/scripts/rabbitmq-cluster.sh" stop || true
  cluster_started=0
}
trap 'stop_cluster; declare -F stop_brokers >/dev/null && stop_brokers' EXIT

status=0
summary=()
for flavour in "${flavours[@]}"; do
  filter=(-LE "^($excluded)\$")
  case $flavour in
    plain) options=() ;;
    # The real brokers' tests run in the plain and the TSan build: under
    # ASan they would add 7 minutes for what the unit, engine and fuzz
    # tests (with the same frames) already show ASan.
    asan) options=(-DTAVREN_ASAN=ON -DTAVREN_BUILD_BENCH=OFF -DTAVREN_BUILD_EXAMPLES=OFF) filter=(-LE "^($excluded|long|integration)\$") ;;
    # Under TSan the real brokers' tests run with STOMP 1.2 only: the older
    # versions change the frames (which the plain build checks), not the
    # threads, and would add 150 s.
    tsan) options=(-DTAVREN_TSAN=ON -DTAVREN_BUILD_BENCH=OFF -DTAVREN_BUILD_EXAMPLES=OFF)
      filter=(-LE "^($excluded|long)\$" -E "_1_[01]( |\$)") ;;
    *) echo "unknown flavour: $flavour" >&2; exit 2 ;;
  esac
  dir=$root/build-test-$flavour
  flavour_start=$SECONDS
  echo "== Building ($flavour) in $dir"
  mkdir -p "$dir"
  "$root/scripts/build.sh" "$dir" "${options[@]}" >"$dir/build.log" 2>&1 || { tail -50 "$dir/build.log"; exit 1; }
  echo "== Testing ($flavour), built in $((SECONDS - flavour_start)) s"
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
  export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
  [ "$flavour" = plain ] && start_cluster
  passed=0
  if (cd "$dir" && ctest --output-on-failure -j"$(nproc)" --timeout 120 "${filter[@]}"); then passed=1; fi
  # The messaging tests once more with every client on a worker pool of four
  # with in-order delivery (about a minute; the whole suite so would take 11).
  if [ $flavour = plain ] && [ "${TAVREN_SKIP_INTEGRATION:-0}" != 1 ] && [ $passed = 1 ]; then
    echo "== Testing ($flavour): messaging on a worker pool with in-order delivery"
    if ! (cd "$dir" && TAVREN_IT_POOL_ORDERED=1 ctest --output-on-failure --timeout 240 -L integration -R BrokerMessaging); then
      passed=0
    fi
  fi
  if [ $passed = 1 ]; then
    summary+=("$flavour: all passed ($((SECONDS - flavour_start)) s)")
    stop_cluster
    continue
  fi
  # A test that failed is run once more on its own, so that a timing test
  # that lost a race on a loaded machine is told apart from a real failure.
  # Either way it is named in the summary at the end.
  failed=$(sed 's/^[0-9]*://' "$dir/Testing/Temporary/LastTestsFailed.log" 2>/dev/null | tr '\n' ' ')
  echo "== Running the failed tests ($flavour) once more: $failed"
  if (cd "$dir" && ctest --output-on-failure --rerun-failed --timeout 120); then
    summary+=("$flavour: failed, then passed on their own: $failed ($((SECONDS - flavour_start)) s)")
  else
    still=$(sed 's/^[0-9]*://' "$dir/Testing/Temporary/LastTestsFailed.log" 2>/dev/null | tr '\n' ' ')
    summary+=("$flavour: FAILED: $still (first run: $failed)")
    status=1
  fi
  stop_cluster
done
echo "== Summary"
printf '  %s\n' "${summary[@]}"
exit $status
