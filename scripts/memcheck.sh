#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the unit and engine tests (CTest labels "unit" and "engine") under
# valgrind's memcheck and fails on any invalid read or write, use of
# uninitialised memory, mismatched or bad free, or definitely or indirectly
# lost block, and on any test that fails under it.
#
#   scripts/memcheck.sh            every test case of both labels
#   scripts/memcheck.sh FILTER     only the cases a GoogleTest filter names, e.g. 'Reconnect*'
#
# Each test executable runs once under valgrind, all its cases in one
# process, two executables at a time: about 4 minutes on two cores after
# the build (about 5 more for a fresh one). Suppressions (tests/valgrind.supp) cover system libraries only.
# Logs: BUILD/memcheck/<test>.log (valgrind) and <test>.out (the test's output).
#
# Environment:
#   TAVREN_MEMCHECK_BUILD_DIR  build folder (default build-memcheck/); an existing,
#                              configured plain build (build-test-plain/, say) is reused as it is
#   TAVREN_MEMCHECK_JOBS       executables at once (default 2)
#   TAVREN_BUILD_JOBS          parallel compile jobs (default 2)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
[ $# -le 1 ] || { echo "usage: $0 [GTEST_FILTER]" >&2; exit 2; }
filter=${1:-*}

# Test cases that run under valgrind like all others, whose valgrind errors
# count, but whose own verdict does not (GoogleTest names, globs allowed):
ignored_verdicts=(
  # They measure the process's memory, which under valgrind is valgrind's own
  # allocator and shadow memory: the figures mean nothing there.
  'ConnectionMemory.*'
  'EngineMemory.*'
  # Besides the process's memory, it times the close, and valgrind runs
  # everything many times slower.
  'Faults.CloseDoesNotQueueBehindAStalledWrite'
  # They count heart-beats per second and time how soon a silent broker is
  # noticed.
  'Heartbeats.AQuietClientSendsALineFeedEveryAgreedInterval'
  'Heartbeats.ASilentBrokerIsGivenUpWithinTwiceItsIntervalPlusAFifth'
)

# True when every case that failed in the test output $1 is one whose verdict is ignored.
only_ignored_failures() {
  local failed name pattern
  failed=$(sed -n 's/^\[  FAILED  \] \([^ ]*\) (.*/\1/p' "$1")
  [ -n "$failed" ] || return 1
  while IFS= read -r name; do
    for pattern in "${ignored_verdicts[@]}"; do
      # shellcheck disable=SC2053 # a glob on purpose
      [[ $name == $pattern ]] && continue 2
    done
    return 1
  done <<< "$failed"
}

"$root/scripts/install-deps.sh" valgrind

dir=${TAVREN_MEMCHECK_BUILD_DIR:-$root/build-memcheck}
jobs=${TAVREN_MEMCHECK_JOBS:-2}
echo "== Building the unit and engine tests in $dir"
mkdir -p "$dir"
if [ ! -f "$dir/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAVREN_BUILD_BENCH=OFF \
    -DTAVREN_BUILD_EXAMPLES=OFF -DTAVREN_BUILD_TOOLS=OFF >"$dir/memcheck-build.log" 2>&1 \
    || { tail -50 "$dir/memcheck-build.log"; exit 1; }
fi
if grep -Eq '^TAVREN_(ASAN|TSAN):BOOL=ON' "$dir/CMakeCache.txt"; then
  echo "$dir is a sanitizer build; valgrind needs a plain one" >&2
  exit 2
fi
cmake --build "$dir" --target tests_unit tests_engine -j"${TAVREN_BUILD_JOBS:-2}" >>"$dir/memcheck-build.log" 2>&1 \
  || { tail -50 "$dir/memcheck-build.log"; exit 1; }

out=$dir/memcheck
rm -rf "$out"
mkdir -p "$out"
tests=()
for label in unit engine; do
  for source in "$root"/tests/$label/test_*.cpp; do tests+=("$(basename "$source" .cpp)"); done
done

valgrind_options=(
  --tool=memcheck
  --error-exitcode=99
  --leak-check=full
  --errors-for-leak-kinds=definite,indirect
  --show-leak-kinds=definite,indirect
  --num-callers=40
  --fair-sched=yes
  --child-silent-after-fork=yes
  --suppressions="$root/tests/valgrind.supp"
  # test_StompFrame defines its own operator new[] and delete[] (to count
  # releases). Valgrind would replace the executable's delete[], which the
  # library calls, but not its new[], which the compiler inlined into the
  # test, and report the pair as mismatched: the executable's own allocation
  # functions are left alone, those of the shared libraries still replaced.
  --soname-synonyms=somalloc=nouserintercepts
)

# Runs one test executable under valgrind; writes NAME.status: its exit
# status, valgrind's error count, the test cases run, the seconds taken.
# Each test has its own watchdog; the time-out here is the last resort.
run_one() {
  local name=$1 start=$SECONDS rc=0 note=
  timeout --kill-after=30 1800 valgrind "${valgrind_options[@]}" --log-file="$out/$name.log" \
    "$dir/tests/$name" --gtest_filter="$filter" >"$out/$name.out" 2>&1 || rc=$?
  local errors cases
  errors=$(sed -n 's/.*ERROR SUMMARY: \([0-9]*\) errors.*/\1/p' "$out/$name.log" | tail -1)
  cases=$(sed -n 's/^\[==========\] \([0-9]*\) tests\? from .* ran\..*/\1/p' "$out/$name.out" | tail -1)
  if [ "$rc" = 1 ] && only_ignored_failures "$out/$name.out"; then
    rc=0
    note=" (failed only where the verdict is ignored: $(sed -n 's/^\[  FAILED  \] \([^ ]*\) (.*/\1/p' "$out/$name.out" | paste -sd ' '))"
  fi
  echo "$rc ${errors:-?} ${cases:-?} $((SECONDS - start))" > "$out/$name.status"
  echo "-- $name: exit $rc, ${errors:-?} valgrind errors, ${cases:-?} test cases, $((SECONDS - start)) s$note"
}

echo "== valgrind memcheck over ${#tests[@]} test executables, $jobs at a time"
started=$SECONDS
running=0
for name in "${tests[@]}"; do
  if [ "$running" -ge "$jobs" ]; then
    wait -n || true
    running=$((running - 1))
  fi
  run_one "$name" &
  running=$((running + 1))
done
wait

status=0
total_cases=0
total_errors=0
failed=()
for name in "${tests[@]}"; do
  read -r rc errors cases _ < "$out/$name.status"
  [[ $cases =~ ^[0-9]+$ ]] && total_cases=$((total_cases + cases))
  [[ $errors =~ ^[0-9]+$ ]] && total_errors=$((total_errors + errors))
  if [ "$rc" != 0 ] || [ "$errors" != 0 ]; then
    failed+=("$name")
    status=1
  fi
done
for name in "${failed[@]}"; do
  echo
  echo "== $name failed under valgrind: $out/$name.log"
  grep -E '^==[0-9]+== ' "$out/$name.log" | grep -v -E '^==[0-9]+== $' | head -120
  grep -E '^\[  FAILED  \]|watchdog' "$out/$name.out" | head -20 || true
done
echo
echo "memcheck: $total_cases test cases in $((${#tests[@]})) executables, $total_errors valgrind errors, ${#failed[@]} executables failed, $((SECONDS - started)) s"
exit $status
