#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Line and branch coverage of src/ and include/ by the unit and engine tests
# (not the integration tests, which need the brokers, nor the "long" ones).
# Builds with --coverage (Debug, so lines are lines) in its own folder, runs
# the tests, and writes with gcovr
#   DIR/coverage/index.html     the report, a page per file
#   DIR/coverage/files.txt      lines and branches per file (per cent, and how many)
#   DIR/coverage/summary.txt    one line, also printed at the end
#   scripts/coverage.sh [DIR]   default build-coverage/
# A test that fails is run once more on its own (as in scripts/test.sh); one
# that fails again fails the script, after the report is written.
# Debian 12; installs gcovr if needed.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$(realpath -m "${1:-$root/build-coverage}")
out=$dir/coverage

"$root/scripts/install-deps.sh" gcovr

echo "== Building with --coverage in $dir"
# Atomic counters: the library's threads count the same lines at once, and
# plain counters then lose updates, even go negative (which gcov prints and
# gcovr cannot read). The counters' pages count in the resident memory the
# tests measure: TAVREN_SANITIZED makes them leave that out, as in the
# sanitizer builds (memory is measured in the plain build).
cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic -DTAVREN_SANITIZED=1" -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage \
  -DTAVREN_BUILD_BENCH=OFF -DTAVREN_BUILD_EXAMPLES=OFF -DTAVREN_BUILD_TOOLS=OFF >/dev/null
cmake --build "$dir" -j"$(nproc)" --target tests_unit tests_engine >"$dir/build.log" 2>&1 ||
  { tail -50 "$dir/build.log"; exit 1; }

echo "== Running the unit and engine tests"
# Counts of an earlier run, and of the listing of the test cases at build
# time, would add to this one.
find "$dir" -name '*.gcda' -delete
status=0
filter=(-L '^(unit|engine)$' -LE '^(long|integration|soak)$')
# Most of the tests' time is spent waiting for time-outs and peers: three at a
# time a core (2 cores: 50 s instead of 150).
if ! (cd "$dir" && ctest --output-on-failure -j"$((3 * $(nproc)))" --timeout 300 "${filter[@]}" >"$dir/tests.log" 2>&1); then
  failed=$(sed 's/^[0-9]*://' "$dir/Testing/Temporary/LastTestsFailed.log" 2>/dev/null | tr '\n' ' ')
  echo "== Running the failed tests once more: $failed"
  if (cd "$dir" && ctest --output-on-failure --rerun-failed --timeout 300 >"$dir/tests-rerun.log" 2>&1); then
    echo "failed, then passed on their own: $failed"
  else
    cat "$dir/tests-rerun.log"
    echo "FAILED again: $failed"
    status=1
  fi
fi
grep -E 'tests passed|Total Test time' "$dir/tests.log" || true

echo "== Report"
rm -rf "$out"
mkdir -p "$out"
# Branches the compiler adds for exceptions (every call that may throw) and
# those it proves dead are left out: what is counted is the code's own ifs.
# gcovr runs in the build folder: gcov leaves its files where it runs.
gcovr_options=(--root "$root" --filter "$root/src/" --filter "$root/include/"
  --exclude "$root/tests/" --exclude "$root/bench/" --exclude-throw-branches --exclude-unreachable-branches -j "$(nproc)")
# gcovr 5.2 waits for ever when a worker fails (-j): the time-out ends it.
(cd "$dir" && timeout 600 gcovr "${gcovr_options[@]}" "$dir" --html-details "$out/index.html" --json-summary "$out/summary.json" >/dev/null)
python3 - "$out" <<'EOF'
import json, sys
out = sys.argv[1]
s = json.load(open(out + "/summary.json"))
with open(out + "/files.txt", "w") as f:
    f.write("%-48s %15s %15s\n" % ("file", "lines", "branches"))
    for e in sorted(s["files"], key=lambda e: e["filename"]):
        f.write("%-48s %6.1f %% %6d %6.1f %% %6d\n" % (e["filename"], e["line_percent"] or 0, e["line_total"],
                                                     e["branch_percent"] or 0, e["branch_total"]))
def part(name, files):
    lt = sum(e["line_total"] for e in files); lc = sum(e["line_covered"] for e in files)
    bt = sum(e["branch_total"] for e in files); bc = sum(e["branch_covered"] for e in files)
    return "%s lines %.1f %% (%d of %d), branches %.1f %% (%d of %d)" % (
        name, 100.0 * lc / max(lt, 1), lc, lt, 100.0 * bc / max(bt, 1), bc, bt)
line = "coverage by the unit and engine tests: " + "; ".join(
    part(d, [e for e in s["files"] if e["filename"].startswith(d)]) for d in ("src/", "include/"))
open(out + "/summary.txt", "w").write(line + "\n")
EOF
echo "per file: $out/files.txt; report: $out/index.html"
cat "$out/summary.txt"
exit $status
