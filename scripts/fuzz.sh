#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the libFuzzer targets of fuzz/ (clang, ASan, UBSan) and runs each for
# SECONDS (default 60), two at a time, each on a scratch copy of its seed
# corpus fuzz/corpus/<target>/ (the repository's corpus is not changed).
# Fails when a target finds a crash, a leak, a sanitizer report, a broken
# check or an input that runs longer than 10 s; the input is kept in
# $dir/work/<target>/ and the log names it. Prints per target the executions
# per second, the executions in all and libFuzzer's final coverage (cov: code
# edges, ft: features).
#   scripts/fuzz.sh [SECONDS]
#   TAVREN_FUZZ_DIR=/tmp/fuzz scripts/fuzz.sh 600   another build folder (default build-fuzz)
#   TAVREN_FUZZ_PARALLEL=1 scripts/fuzz.sh          one target at a time
# To replay an input: build-fuzz/fuzz/<target> FILE
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-60}
dir=${TAVREN_FUZZ_DIR:-$root/build-fuzz}
parallel=${TAVREN_FUZZ_PARALLEL:-2}
targets=(fuzz_frame_parser fuzz_connection_read fuzz_session)
start=$SECONDS

# What the build needs, and clang with libFuzzer and the sanitizer runtimes
# (in libclang-rt-14-dev, which apt only recommends); apt only when one is
# missing.
"$root/scripts/install-deps.sh" clang libclang-rt-14-dev

# -O2 with debug lines for readable stacks, and without NDEBUG.
echo "== Building the fuzz targets in $dir"
mkdir -p "$dir"
cmake -S "$root" -B "$dir" -DCMAKE_CXX_COMPILER=clang++ -DTAVREN_FUZZ=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g" -DTAVREN_BUILD_TESTS=OFF -DTAVREN_BUILD_BENCH=OFF \
  -DTAVREN_BUILD_EXAMPLES=OFF -DTAVREN_BUILD_TOOLS=OFF >"$dir/configure.log" 2>&1 ||
  { tail -30 "$dir/configure.log"; exit 1; }
cmake --build "$dir" -j2 --target "${targets[@]}" >"$dir/build.log" 2>&1 || { tail -50 "$dir/build.log"; exit 1; }
build_time=$((SECONDS - start))

# A small quarantine: freed memory is reused sooner, so a run does not fault
# in hundreds of megabytes (a third more executions for the connection
# target); a use after free within an input is still caught.
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:quarantine_size_mb=16
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

# One target: a fresh working corpus from the seeds, then libFuzzer for the
# given time. -timeout: an input running longer counts as a hang. The outer
# timeout ends a run that libFuzzer itself can no longer stop.
run_target() {
  local target=$1 work=$dir/work/$1
  rm -rf "$work"
  mkdir -p "$work/corpus"
  cp "$root/fuzz/corpus/$target/"* "$work/corpus/"
  local rc=0
  (cd "$work" && timeout --kill-after=10 $((seconds + 120)) "$dir/fuzz/$target" -max_total_time="$seconds" \
    -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$work/" corpus \
    >"$work/log" 2>&1) || rc=$?
  echo "$rc" >"$work/status"
}

echo "== Fuzzing each target for $seconds s, $parallel at a time"
fuzz_start=$SECONDS
running=0
for target in "${targets[@]}"; do
  if [ "$running" -ge "$parallel" ]; then
    wait -n
    running=$((running - 1))
  fi
  run_target "$target" &
  running=$((running + 1))
done
wait
fuzz_time=$((SECONDS - fuzz_start))

status=0
printf '%-22s %10s %14s %7s %7s %6s  %s\n' target exec/s executions cov ft corpus result
for target in "${targets[@]}"; do
  work=$dir/work/$target
  log=$work/log
  rc=$(cat "$work/status")
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
  final=$(grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -1 || true)
  cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$final")
  ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$final")
  corp=$(sed -n 's/.* corp: \([0-9]*\)\/.*/\1/p' <<<"$final")
  result=ok
  if [ "$rc" != 0 ] || [ -z "$final" ]; then
    result="FAILED (exit $rc)"
    status=1
  fi
  printf '%-22s %10s %14s %7s %7s %6s  %s\n' "$target" "${rate:--}" "${execs:--}" "${cov:--}" "${ft:--}" \
    "${corp:--}" "$result"
done
for target in "${targets[@]}"; do
  work=$dir/work/$target
  [ "$(cat "$work/status")" = 0 ] && continue
  echo
  echo "== $target failed; the end of $work/log:"
  grep -v '^\(#\|INFO\|MERGE\|NEW_FUNC\|	\)' "$work/log" | tail -40 || true
  ls "$work"/crash-* "$work"/leak-* "$work"/timeout-* "$work"/oom-* 2>/dev/null || true
done
echo "fuzz: build ${build_time} s, fuzzing ${fuzz_time} s, ${SECONDS} s in all (${seconds} s per target, $parallel at a time)"
exit $status
