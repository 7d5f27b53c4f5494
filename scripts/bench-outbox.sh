#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Sending until every message is confirmed, on RabbitMQ and ActiveMQ: the
# outbox in memory and in a file (Crash, PowerLoss) from 1 and 4 threads,
# beside today's sendToQueue (persistent and not, to the receipt of the last
# message) and a raw-socket floor writing the same frames. The variants run
# interleaved, BENCH_REPS times (default 3), and the medians are written as a
# section of docs/performance.md (BENCH_OUT=DIR for elsewhere), together with
# the fsyncs a message costs (strace -c) and the memory of 10,000 pending
# messages of 1 KiB. scripts/bench.sh runs it at its end; on its own:
#
#   scripts/bench-outbox.sh            (BENCH_N=20000 messages a run)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build-bench
work=$build/outbox
n=${BENCH_N:-20000}
reps=${BENCH_REPS:-3}
out=${BENCH_OUT:-$root/docs}

"$root/scripts/install-deps.sh" strace
if [ ! -f "$build/CMakeCache.txt" ] || ! find "$build" -name 'libtavren.so' | grep . >/dev/null; then
  mkdir -p "$build"
  "$root/scripts/build.sh" "$build" -DCMAKE_BUILD_TYPE=Release -DTAVREN_BUILD_TESTS=OFF \
    -DTAVREN_BUILD_BENCH=OFF -DTAVREN_BUILD_EXAMPLES=OFF > "$build/build-outbox.log" 2>&1 \
    || { tail -40 "$build/build-outbox.log"; exit 1; }
fi
lib=$(dirname "$(find "$build" -name 'libtavren.so' -print -quit)")
mkdir -p "$work"
g++ -O2 -std=c++17 -Wall -Wextra -pthread -I"$root/include" -I"$build/include" -o "$work/outbox_bench" \
  "$root/bench/compare/outbox_bench.cpp" -L"$lib" -ltavren -Wl,-rpath,"$lib"

source "$root/scripts/brokers/for-tests.sh"
start_brokers rabbitmq activemq

variants=(plain plain-persistent memory-1 memory-4 crash-1 crash-4 powerloss-1 powerloss-4 floor)
results=$work/results.txt
: > "$results"
for rep in $(seq "$reps"); do
  for broker in "RabbitMQ 61623 1.2" "ActiveMQ 61633 1.1"; do
    set -- $broker
    for v in "${variants[@]}"; do
      line=$("$work/outbox_bench" "$v" 127.0.0.1 "$2" "$3" "obench-$v-$rep-$RANDOM" "$n" "$work" | grep '^RESULT' || true)
      echo "$1 $line" | tee -a "$results"
    done
  done
done
# fsyncs per message: the same runs under strace, once each.
for v in crash-1 powerloss-1 powerloss-4; do
  strace -f -c -e trace=fsync,fdatasync -o "$work/strace-$v.txt" \
    "$work/outbox_bench" "$v" 127.0.0.1 61623 1.2 "obench-strace-$v-$RANDOM" "$n" "$work" >/dev/null
done
"$work/outbox_bench" rss 10000 1024 | tee "$work/rss.txt"

python3 - "$results" "$work" "$n" "$reps" "$out/performance.md" <<'EOF'
import json, re, statistics, sys
results, work, n, reps, target = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4], sys.argv[5]
rates = {}
wear = {}
for line in open(results):
    broker, _, payload = line.partition(' RESULT ')
    if not payload:
        continue
    r = json.loads(payload)
    if r['ok']:
        rates.setdefault((broker, r['variant']), []).append(r['rate'])
    if r['write_bytes_per_msg'] >= 0:
        wear.setdefault(r['variant'], []).append(r['write_bytes_per_msg'])
def med(b, v):
    x = rates.get((b, v))
    return statistics.median(x) if x else float('nan')
def syncs(v):
    try:
        text = open(f'{work}/strace-{v}.txt').read()
    except OSError:
        return float('nan')
    calls = sum(int(m.group(1)) for m in re.finditer(r'^\s*[\d.]+\s+[\d.]+\s+\d+\s+(\d+)(?:\s+\d+)?\s+f(?:data)?sync', text, re.M))
    return calls / n
rss = json.loads(open(f'{work}/rss.txt').read().split('RESULT ', 1)[1])
names = [('plain', "sendToQueue, not persistent (to the receipt of the last)"),
         ('plain-persistent', "sendToQueue with persistent:true (to the receipt of the last)"),
         ('floor', "raw floor: the same frames as the outbox, 64 KiB writes"),
         ('memory-1', "outbox in memory, 1 thread"), ('memory-4', "outbox in memory, 4 threads"),
         ('crash-1', "file outbox, Crash, 1 thread"), ('crash-4', "file outbox, Crash, 4 threads"),
         ('powerloss-1', "file outbox, PowerLoss, 1 thread"), ('powerloss-4', "file outbox, PowerLoss, 4 threads")]
lines = ['## Sending with an outbox', '',
         f'Messages of 100 bytes, {n} a run, each confirmed by the broker (medians of {reps} runs, the variants',
         'interleaved; `scripts/bench-outbox.sh`). Rates in messages per second until the last is confirmed.', '',
         '| variant | RabbitMQ | ActiveMQ |', '|---|---|---|']
for v, text in names:
    lines.append(f'| {text} | {med("RabbitMQ", v):.0f} | {med("ActiveMQ", v):.0f} |')
lines += ['', '| ratio | RabbitMQ | ActiveMQ |', '|---|---|---|']
for a, b, text in [('memory-1', 'plain-persistent', 'memory outbox / sendToQueue persistent'),
                   ('memory-1', 'floor', 'memory outbox / raw floor, same frames'),
                   ('crash-1', 'memory-1', 'file Crash / memory outbox'),
                   ('powerloss-4', 'powerloss-1', 'file PowerLoss, 4 threads / 1 thread')]:
    lines.append(f'| {text} | {med("RabbitMQ", a) / med("RabbitMQ", b):.2f} | {med("ActiveMQ", a) / med("ActiveMQ", b):.2f} |')
lines += ['', '| file outbox | fsyncs a message | bytes written a message (/proc/self/io) |', '|---|---|---|']
for v in ['crash-1', 'powerloss-1', 'powerloss-4']:
    w = statistics.median(wear[v]) if wear.get(v) else float('nan')
    lines.append(f'| {v} | {syncs(v):.3f} | {w:.0f} |')
lines += ['', f'{rss["n"]} pending messages of {rss["size"]} bytes in a memory outbox grow the resident set by '
          f'{rss["rss_growth_kib"] / 1024:.1f} MiB.', '']
section = '\n'.join(lines)
print(section)
try:
    text = open(target).read()
except OSError:
    text = ''
start = text.find('## Sending with an outbox')
if start >= 0:
    end = text.find('\n## ', start + 1)
    text = text[:start] + section + (text[end + 1:] if end >= 0 else '')
else:
    text = text.rstrip('\n') + '\n\n' + section
open(target, 'w').write(text)
EOF
