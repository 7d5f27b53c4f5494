# SPDX-License-Identifier: Apache-2.0
"""The table, docs/performance.md and docs/performance.png of the client comparison.

write(results, elapsed) is called by driver.py at the end of a run;
`python3 report.py RESULTS.json` makes the same from a saved run.
"""
import json
import os
import platform
import statistics
import subprocess
import sys
import time

CLIENTS = ["floor", "libtavren", "libtavren pool(1)", "libtavren pool(4)", "libtavren pool(4)+ordered", "stomp.py",
           "Net::Stomp", "ruby-stomp", "stompjs"]
# The floor writing one frame per write; measured for send and send-discard only.
FLOOR1 = "floor (1 write per frame)"
OTHERS = ["stomp.py", "Net::Stomp", "ruby-stomp", "stompjs"]
BROKER_NAMES = {"rabbitmq": "RabbitMQ", "activemq": "ActiveMQ", "discard": "discard"}
BOTH = ["rabbitmq", "activemq"]

# workload, key, label, better ("high", "low" or None for counts), format
METRICS = [
    ("send", "rate", "send, msg/s", "high", "int"),
    ("send-discard", "rate", "send to the discard server, msg/s", "high", "int"),
    ("receive", "rate", "receive + ACK, msg/s", "high", "int"),
    ("receive", "cpu_s", "receive, client CPU s", "low", "2f"),
    ("receive", "cpu_us_per_msg", "receive, client CPU µs per message", "low", "1f"),
    ("roundtrip", "median_us", "round trip, median µs", "low", "int"),
    ("roundtrip", "p99_us", "round trip, p99 µs", "low", "int"),
    ("ackdelay", "median_us", "ACK delay after the listener, median µs", "low", "int"),
    ("ackdelay", "p99_us", "ACK delay after the listener, p99 µs", "low", "int"),
    ("footprint", "rss_mib", "idle, RSS MiB", "low", "1f"),
    ("footprint", "threads", "idle, threads", "low", "int"),
    ("footprint", "idle_cpu_ms", "idle, CPU ms in 5 s", "low", "1f"),
    ("backlog", "seconds", "backlog, drain time s", "low", "2f"),
    ("backlog", "rate", "backlog, msg/s", "high", "int"),
    ("backlog", "cpu_s", "backlog, client CPU s", "low", "2f"),
    ("backlog", "dups", "backlog, duplicates", None, "int"),
    ("backlog", "gaps", "backlog, missing", None, "int"),
    ("backlog", "left", "backlog, left in the queue", None, "int"),
    ("backlog", "peak_threads", "backlog, peak threads", "low", "int"),
    ("backlog", "peak_rss_mib", "backlog, peak RSS MiB", "low", "1f"),
    ("backlog", "left_unacknowledged_lines", "backlog, log lines \"left unacknowledged\"", None, "int"),
]


def fmt(value, kind):
    if value is None:
        return "–"
    if kind == "int":
        return "{:,}".format(int(round(value)))
    if kind == "2f":
        return "%.2f" % value
    return "%.1f" % value


def cell_values(results, workload, broker, client, key):
    runs = results.get(workload, {}).get(broker, {}).get(client, [])
    values = [r[key] for r in runs if isinstance(r.get(key), (int, float))]
    errors = [r["error"] for r in runs if r.get("error")]
    return values, errors, len(runs)


def columns(results):
    """The clients of the table: the per-frame floor after the floor when the run has it."""
    has_floor1 = any(FLOOR1 in clients for brokers in results.values() for clients in brokers.values())
    return CLIENTS[:1] + [FLOOR1] + CLIENTS[1:] if has_floor1 else CLIENTS


def summary_rows(results):
    """Rows of (label, broker, {client: (median, flagged, values)}, tavren/floor, tavren/best other, best other,
    kind, better, tavren/per-frame floor); the last is None where the per-frame floor was not measured."""
    rows = []
    for workload, key, label, better, kind in METRICS:
        if workload not in results:
            continue
        for broker in (["discard"] if workload == "send-discard" else BOTH):
            if broker not in results[workload]:
                continue
            cells = {}
            for client in columns(results):
                values, errors, runs = cell_values(results, workload, broker, client, key)
                if runs == 0:
                    continue
                cells[client] = (statistics.median(values) if values else None, bool(errors), values)
            if not any(c[0] is not None for c in cells.values()):
                continue
            tav = cells.get("libtavren", (None,))[0]
            flo = cells.get("floor", (None,))[0]
            flo1 = cells.get(FLOOR1, (None,))[0]
            ratio_floor = ratio_best = ratio_floor1 = None
            best_name = None
            if better and tav is not None:
                if flo:
                    ratio_floor = tav / flo
                if flo1:
                    ratio_floor1 = tav / flo1
                others = [(cells[c][0], c) for c in OTHERS if c in cells and cells[c][0] is not None]
                if others:
                    best, best_name = (max if better == "high" else min)(others)
                    if best:
                        ratio_best = tav / best
            rows.append((label, broker, cells, ratio_floor, ratio_best, best_name, kind, better, ratio_floor1))
    return rows


def ratio_text(r):
    return "–" if r is None else "%.2f×" % r


def table_markdown(rows, clients):
    with1 = FLOOR1 in clients
    lines = ["| figure | broker | " + " | ".join(clients) + " | libtavren ÷ floor |"
             + (" libtavren ÷ floor (1 write per frame) |" if with1 else "") + " libtavren ÷ best other |",
             "|---|---|" + "---:|" * len(clients) + "---:|" + ("---:|" if with1 else "") + "---:|"]
    for label, broker, cells, rf, rb, best_name, kind, better, rf1 in rows:
        row = ["%s%s" % (label, "" if better is None else (" ↑" if better == "high" else " ↓")), BROKER_NAMES[broker]]
        for client in clients:
            if client not in cells:
                row.append("")
                continue
            median, flagged, _ = cells[client]
            row.append(fmt(median, kind) + (" (!)" if flagged else ""))
        row.append(ratio_text(rf))
        if with1:
            row.append(ratio_text(rf1) if FLOOR1 in cells else "")
        row.append(ratio_text(rb) + (" (%s)" % best_name if rb is not None else ""))
        lines.append("| " + " | ".join(row) + " |")
    return "\n".join(lines)


def table_text(rows, clients):
    with1 = FLOOR1 in clients
    head = ["figure", "broker"] + ["floor1" if c == FLOOR1 else c for c in clients] \
        + ["tav/floor"] + (["tav/floor1"] if with1 else []) + ["tav/best"]
    body = []
    for label, broker, cells, rf, rb, best_name, kind, better, rf1 in rows:
        row = [label, BROKER_NAMES[broker]]
        for client in clients:
            if client not in cells:
                row.append("")
            else:
                row.append(fmt(cells[client][0], kind) + ("!" if cells[client][1] else ""))
        row.append(ratio_text(rf))
        if with1:
            row.append(ratio_text(rf1) if FLOOR1 in cells else "")
        row.append(ratio_text(rb))
        body.append(row)
    widths = [max(len(str(r[i])) for r in [head] + body) for i in range(len(head))]
    out = []
    for r in [head] + body:
        out.append("  ".join(str(v).rjust(w) if i > 1 else str(v).ljust(w) for i, (v, w) in enumerate(zip(r, widths))))
    return "\n".join(out)


def raw_markdown(results):
    lines = []
    for workload, key, label, better, kind in METRICS:
        for broker in (["discard"] if workload == "send-discard" else BOTH):
            for client in columns(results):
                runs = results.get(workload, {}).get(broker, {}).get(client, [])
                if not runs:
                    continue
                values = [fmt(r.get(key), kind) if isinstance(r.get(key), (int, float)) else "–" for r in runs]
                if all(v == "–" for v in values):
                    continue
                lines.append("| %s | %s | %s | %s |" % (label, BROKER_NAMES[broker], client, " / ".join(values)))
    return "| figure | broker | client | repetitions |\n|---|---|---|---|\n" + "\n".join(lines)


def errors_markdown(results):
    lines = []
    for workload, brokers in results.items():
        for broker, clients in brokers.items():
            for client, runs in clients.items():
                for i, r in enumerate(runs, 1):
                    if r.get("error"):
                        lines.append("- %s, %s, %s, repetition %d: %s" % (workload, BROKER_NAMES[broker], client, i,
                                                                          r["error"]))
    if not lines:
        return "None: every run completed, every message arrived and was acknowledged."
    if any("Net::Stomp" in line for line in lines):
        lines.append("")
        lines.append("Net::Stomp 0.61 drops a message now and then (a few in 20,000, on both brokers): its "
                     "receive_frame never returns it, so it is never acknowledged and the drain afterwards finds it "
                     "in the queue. It does so without the relay too (straight to RabbitMQ, two of three runs of "
                     "5,000 lost one message each). Its figures for those runs cover the messages it did "
                     "acknowledge.")
    return "\n".join(lines)


def sh(cmd):
    try:
        return subprocess.run(cmd, shell=True, capture_output=True, text=True, timeout=10).stdout.strip()
    except Exception:
        return ""


def npm_version(package):
    """The version of an npm package in BENCH_NODE_MODULES, or an empty string."""
    try:
        with open(os.path.join(os.environ.get("BENCH_NODE_MODULES", ""), package, "package.json")) as f:
            return json.load(f).get("version", "")
    except (OSError, ValueError):
        return ""


def machine():
    model = sh("grep -m1 'model name' /proc/cpuinfo | cut -d: -f2").strip()
    pkgs = {p: sh("dpkg-query -W -f='${Version}' %s 2>/dev/null" % p)
            for p in ["rabbitmq-server", "activemq", "python3-stomp", "libnet-stomp-perl", "ruby-stomp", "g++"]}
    return {
        "cpu": model or platform.processor(),
        "cores": os.cpu_count(),
        "kernel": platform.release(),
        "debian": sh("cat /etc/debian_version"),
        "pkgs": pkgs,
        "memory": sh("free -m | awk '/Mem:/{print $2}'"),
        "node": sh("/usr/bin/node --version"),
        "npm": {p: npm_version(p) for p in ["@stomp/stompjs", "@stomp/tcp-wrapper"]},
    }


PLOT_TITLES = {"floor": "raw floor (C++)", FLOOR1: "raw floor, 1 write per frame", "libtavren": "libtavren",
               "stomp.py": "stomp.py", "Net::Stomp": "Net::Stomp", "ruby-stomp": "ruby stomp gem",
               "stompjs": "stompjs (Node)",
               "libtavren pool(1)": "libtavren, pool of 1", "libtavren pool(4)": "libtavren, pool of 4",
               "libtavren pool(4)+ordered": "libtavren, pool of 4, in order"}
# Each client keeps its colour whether the per-frame floor is there or not; that one is a lighter floor.
PLOT_COLOURS = {"floor": "lt 1", FLOOR1: "lc rgb '#c9a7eb'", "libtavren": "lt 2", "stomp.py": "lt 3",
                "Net::Stomp": "lt 4", "ruby-stomp": "lt 5", "libtavren pool(1)": "lt 6", "libtavren pool(4)": "lt 7",
                "libtavren pool(4)+ordered": "lt 8", "stompjs": "lc rgb '#8c564b'"}


def plot(results, path):
    """Grouped bars: messages per second per client for send and receive on both brokers."""
    groups = [("send", "rabbitmq", "send\\nRabbitMQ"), ("send", "activemq", "send\\nActiveMQ"),
              ("receive", "rabbitmq", "receive + ACK\\nRabbitMQ"), ("receive", "activemq", "receive + ACK\\nActiveMQ")]
    # The per-frame floor was measured for the send groups only: NaN, no bar, in the others.
    clients = columns(results)
    data = []
    for workload, broker, title in groups:
        row = ['"%s"' % title]
        for client in clients:
            values, _, _ = cell_values(results, workload, broker, client, "rate")
            row.append("%.1f" % statistics.median(values) if values else "NaN")
        data.append(" ".join(row))
    if not data:
        return False
    base = os.path.splitext(path)[0]
    with open(base + ".dat", "w") as f:
        f.write("\n".join(data) + "\n")
    script = """
set terminal pngcairo size 1000,560 font "sans,10"
set output '%(png)s'
set title "libtavren and other STOMP clients: messages per second (median of the repetitions; higher is better)"
set style data histogram
set style histogram clustered gap 1
set style fill solid 0.85 border -1
set boxwidth 0.9
set grid ytics
set ylabel "messages per second"
set yrange [0:*]
set key outside top center horizontal
set bmargin 5
set xtics nomirror
plot %(series)s
""" % {"png": path, "series": ", \\\n     ".join(
        "%s using %d%s %s title '%s'" % ("'%s'" % (base + ".dat") if i == 0 else "''", i + 2,
                                         ":xtic(1)" if i == 0 else "", PLOT_COLOURS[c], PLOT_TITLES[c])
        for i, c in enumerate(clients))}
    r = subprocess.run(["gnuplot"], input=script, text=True, capture_output=True)
    os.remove(base + ".dat")
    if r.returncode != 0:
        print(r.stderr, file=sys.stderr)
        return False
    return True


METHOD = """\
- **Clients.** *floor*: `bench/compare/floor_client.cpp`, a minimal STOMP
  client on plain POSIX sockets and no library; it writes pre-built frames,
  gathering up to 64 KiB into one write, reads through one buffered reader
  that parses in place, and writes the ACKs for all messages of one read in
  one write. It shows the limit of the path (broker, loopback, kernel), not of
  a client. *floor (1 write per frame)*: the same program with `FLOOR_BATCH=1`,
  for send and send-discard only, interleaved with the others: every SEND
  frame goes out in a write of its own. *libtavren*:
  `bench/compare/tavren_client.cpp`, the public headers only
  (`<tavren/tavren.h>`), linked against the built `libtavren.so`, with the
  library's defaults (workers, stack size); its log goes to a file.
  *stomp.py* (python3-stomp), *Net::Stomp* (libnet-stomp-perl), the *Ruby
  stomp gem* (ruby-stomp) and *stompjs* (`@stomp/stompjs` with
  `@stomp/tcp-wrapper` from npm, on Node: its Client with the TCP wrapper as
  its socket, the message callback ACKs each message on Node's event loop):
  `bench/compare/clients/`, each used the way its documentation shows. Every
  client offers 1.2 to RabbitMQ and 1.1 to ActiveMQ
  (ActiveMQ refuses libtavren's 1.2 ACK, see `docs/brokers.md`; 1.1 works for
  every client there) and 1.2 to the discard server.
- **Two floors for sending.** The batched floor is the limit of the socket:
  what the path takes when frames are gathered into large writes. A client
  whose send call puts its frame on the wire before it returns, as
  libtavren's `sendToQueue` does and as the send calls of the other
  clients do, cannot gather frames of several calls; it pays at least one
  write (one system call, and on loopback the broker's wake-up) per frame.
  The floor writing one frame per write is the limit for such a client, and
  libtavren's ratio to it shows what the library adds on top of that write;
  the ratio to the batched floor also contains the price of the promise
  itself. For the other figures only the batched floor is measured.
- **TCP_NODELAY** is on for every client: libtavren sets it, the floor sets it
  so that it is compared on the same terms, the Ruby gem sets it by default,
  the stomp.py and Net::Stomp clients set it on the library's socket after
  connecting, and the stompjs client opens the TCP wrapper's socket with it
  (otherwise Nagle's algorithm holds a SEND behind an unanswered
  ACK and the round trip measures the kernel's delayed-ACK timer). The relay
  sets it on both legs.
- **Interleaving.** Within each repetition every workload runs for every
  client, client after client, before the next workload starts; the client
  order rotates from one repetition to the next. Figures are the medians of
  the repetitions; all repetitions are listed further down. The machine is
  shared: absolute figures drift between runs, the ratios within one run are
  what counts.
- **send**: N messages of 100 bytes to a fresh queue, then a SUBSCRIBE with a
  receipt on another queue (for libtavren: `listenOnQueue`, which returns with
  the receipt). The clock runs from the first send to the receipt: the broker
  has then taken every SEND before it. The same marker for every client; a
  receipt on the last SEND would mean something else on RabbitMQ, which
  answers it only once the message is confirmed. The queue is then drained
  and must hold exactly N messages. Here the broker sets the pace, so the
  floors are not strict ceilings, and the repetitions scatter widely (see
  "Every repetition").
- **send-discard**: the same into `bench/compare/discard_server.cpp`, which
  answers CONNECT with CONNECTED ("server", "version", "heart-beat",
  "session"), answers every frame that asks for a receipt, and drops the rest:
  the client's own cost of sending.
- **receive**: N messages are queued first by the floor client (untimed; a
  "bench-seq" header numbers them). The client subscribes with
  client-individual acknowledgement and ACKs each message. Between client and
  broker runs `bench/compare/ack_relay.cpp`, a poll-based relay that forwards
  the bytes of both directions unchanged and records the CLOCK_MONOTONIC time
  at which each frame reached it from the client. The clock runs from the
  SUBSCRIBE leaving the client to the last ACK leaving the client, both as the
  relay saw them: libtavren's API cannot tell when an ACK was written, so every
  client is timed this way. The relay reads the client whatever the other
  direction does, as a broker does, and holds the broker back once 1 MiB
  waits for the client. Afterwards a subscription by the floor client must
  get nothing within 1 s (the queue is empty). A client that acknowledges
  nothing new for 10 s has failed; its figures then cover the messages it did
  acknowledge and are marked (!). CPU is user + system time of the client process from `wait4`,
  interpreter start-up included for the scripted clients.
- **round trip**: one message sent, then wait until the same client's own
  subscription has it (and ACK it); RT times; median and 99th percentile.
- **ACK delay** (libtavren only): a stream of N messages, sent by the floor
  client at a fixed rate straight to the broker while libtavren listens
  through the relay; the rate is well below what every client of the
  comparison receives, so the figure shows the ACK path, not a backlog. Per message: from the end of `onMessage` (its
  CLOCK_MONOTONIC time, recorded by the listener) to the relay's time for that
  message's ACK.
- **footprint**: every client connected, one subscription, idle: RSS (VmRSS)
  and thread count from `/proc/PID/status` after 2 s, then the CPU time of
  all its threads (`/proc/PID/task/*/schedstat`) over 5 more seconds. All
  clients idle side by side, since idle clients do not disturb each other.
  The scripted clients' RSS includes their interpreter.
- **backlog**: BACKLOG_N queued messages, one subscription, through the relay
  as for receive: time from the subscription to the last ACK, duplicates and
  missing "bench-seq" numbers, what is left in the queue afterwards, peak
  threads (`/proc/PID/status` polled every 10 ms) and peak RSS (the larger of
  VmHWM at the end and the polled VmRSS), and for libtavren the log lines
  saying "left unacknowledged".
- Ratios are libtavren's figure divided by the other's: above 1 is better for
  the rows marked ↑ (msg/s), below 1 for those marked ↓ (times, CPU, memory,
  threads). "(!)" marks a median over repetitions of which at least one
  failed; those are listed under "Incomplete runs".
"""


def goals_markdown(results):
    """The receive path's goals, each checked against this run's medians."""

    def med(workload, broker, client, key):
        values = cell_values(results, workload, broker, client, key)[0]
        return statistics.median(values) if values else None

    def best_other(workload, broker, key, higher):
        values = [med(workload, broker, c, key) for c in OTHERS]
        values = [v for v in values if v is not None]
        if not values:
            return None
        return max(values) if higher else min(values)

    lines = ["| goal | broker | measured | target | met |", "|---|---|---:|---:|---|"]

    def row(goal, broker, measured, target, met):
        mark = "–" if met is None else ("yes" if met else "**no**")
        lines.append("| %s | %s | %s | %s | %s |" % (goal, BROKER_NAMES.get(broker, broker), measured, target, mark))

    def ratio_row(goal, broker, value, reference, at_least, bound):
        if value is None or not reference:
            return row(goal, broker, "–", ("≥ " if at_least else "≤ ") + "%.1f×" % bound, None)
        r = value / reference
        row(goal, broker, "%.2f×" % r, ("≥ " if at_least else "≤ ") + "%.1f×" % bound,
            r >= bound if at_least else r <= bound)

    for broker in BOTH:
        tav = med("receive", broker, "libtavren", "rate")
        ratio_row("receive + ACK ÷ floor", broker, tav, med("receive", broker, "floor", "rate"), True, 0.8)
        ratio_row("receive + ACK ÷ best other", broker, tav, best_other("receive", broker, "rate", True), True, 1.0)
        ratio_row("receive CPU per message ÷ floor", broker, med("receive", broker, "libtavren", "cpu_us_per_msg"),
                  med("receive", broker, "floor", "cpu_us_per_msg"), False, 3.0)
        rt = med("roundtrip", broker, "libtavren", "median_us")
        ratio_row("round trip median ÷ best other", broker, rt, best_other("roundtrip", broker, "median_us", False),
                  False, 1.0)
        ratio_row("round trip median ÷ floor", broker, rt, med("roundtrip", broker, "floor", "median_us"), False, 2.5)
        p99 = med("roundtrip", broker, "libtavren", "p99_us")
        row("round trip p99", broker, "–" if p99 is None else "{:,} µs".format(int(p99)), "< 2,000 µs",
            None if p99 is None else p99 < 2000)
        ratio_row("send to the broker ÷ floor", broker, med("send", broker, "libtavren", "rate"),
                  med("send", broker, "floor", "rate"), True, 0.9)
        dups, gaps = med("backlog", broker, "libtavren", "dups"), med("backlog", broker, "libtavren", "gaps")
        left = med("backlog", broker, "libtavren", "left")
        unacked = med("backlog", broker, "libtavren", "left_unacknowledged_lines")
        once = None if None in (dups, gaps, left, unacked) else (dups == 0 and gaps == 0 and left == 0 and unacked == 0)
        row("backlog: each message once, all acknowledged, no \"left unacknowledged\"", broker,
            "–" if once is None else "%d / %d / %d / %d" % (dups, gaps, left, unacked), "0 / 0 / 0 / 0", once)
        threads = med("backlog", broker, "libtavren", "peak_threads")
        row("backlog peak threads", broker, "–" if threads is None else "%d" % threads, "≤ 20 (16 workers + 4)",
            None if threads is None else threads <= 20)
        rss = med("backlog", broker, "libtavren", "peak_rss_mib")
        row("backlog peak RSS", broker, "–" if rss is None else "%.1f MiB" % rss, "< 64 MiB",
            None if rss is None else rss < 64)
        delay = med("ackdelay", broker, "libtavren", "median_us")
        row("ACK after the listener's return, median", broker, "–" if delay is None else "{:,} µs".format(int(delay)),
            "≤ 5,000 µs", None if delay is None else delay <= 5000)
    discard = med("send-discard", "discard", "libtavren", "rate")
    ratio_row("send to the discard server ÷ floor (batched)", "discard", discard,
              med("send-discard", "discard", "floor", "rate"), True, 0.5)
    ratio_row("send to the discard server ÷ floor (1 write per frame)", "discard", discard,
              med("send-discard", "discard", FLOOR1, "rate"), True, 0.5)
    notes = os.path.join(os.path.dirname(os.path.abspath(__file__)), "goals.md")
    text = "\n".join(lines) + "\n"
    if os.path.exists(notes):
        with open(notes) as f:
            text += "\n" + f.read()
    return text


def write(results, elapsed, meta=None):
    meta = meta or {}
    rows = summary_rows(results)
    clients = columns(results)
    print()
    print(table_text(rows, clients))
    print()
    print("Run time: %.1f minutes" % (elapsed / 60.0))
    out = os.environ.get("BENCH_OUT")
    if not out:
        return
    os.makedirs(out, exist_ok=True)
    png = os.path.join(out, "performance.png")
    plotted = plot(results, png)
    m = machine()
    reps = os.environ.get("BENCH_REPS", "3")
    n = os.environ.get("BENCH_N", "20000")
    backlog_n = os.environ.get("BENCH_BACKLOG_N", "100000")
    rt = os.environ.get("BENCH_RT", "1000")
    rate = os.environ.get("BENCH_ACKDELAY_RATE", "1000")
    backlog_clients = os.environ.get("BENCH_BACKLOG_CLIENTS", "floor,libtavren")
    command = os.environ.get("BENCH_COMMAND", "scripts/bench.sh")
    lib = os.environ.get("BENCH_LIB_DESC", "")
    method = METHOD.replace("BACKLOG_N", "{:,}".format(int(backlog_n))).replace(" RT ", " {:,} ".format(int(rt)))
    doc = """# libtavren compared with other STOMP clients

Measured by `scripts/bench.sh` on %(date)s; the run took %(minutes).1f minutes.
It compares libtavren with a raw-socket floor and four STOMP clients of other
languages (stomp.py, Net::Stomp, the Ruby stomp gem, @stomp/stompjs on Node),
on RabbitMQ and ActiveMQ over loopback.

```sh
%(command)s
```

Sizes of this run: %(reps)s repetitions, N = %(n)s messages of 100 bytes
(send, receive, ACK delay), %(rt)s round trips, a backlog of %(backlog_n)s
messages (clients: %(backlog_clients)s), the ACK-delay stream at %(rate)s
messages per second. `BENCH_REPS`, `BENCH_N`, `BENCH_BACKLOG_N`, `BENCH_RT`,
`BENCH_ACKDELAY_RATE`, `BENCH_BACKLOG_CLIENTS` and `BENCH_ONLY=workload,...`
(send, send-discard, receive, roundtrip, ackdelay, footprint, backlog) change
them for a quick run.

## Machine

| | |
|---|---|
| CPU | %(cpu)s, %(cores)s cores (shared with other work while this ran) |
| memory | %(memory)s MiB |
| kernel | %(kernel)s |
| Debian | %(debian)s |
| RabbitMQ | rabbitmq-server %(rabbit)s (STOMP plugin), 127.0.0.1:61623 |
| ActiveMQ | activemq %(amq)s, 127.0.0.1:61633 |
| clients | python3-stomp %(pystomp)s, libnet-stomp-perl %(netstomp)s, ruby-stomp %(rubystomp)s, @stomp/stompjs %(stompjs)s with @stomp/tcp-wrapper %(tcpwrapper)s on Node %(node)s; C++ built with g++ %(gxx)s, -O2 |
| libtavren | %(lib)s, CMake Release build |

## Results

Medians of the repetitions. ↑: higher is better, ↓: lower is better.

%(table)s

%(plot)s

### Incomplete runs

%(errors)s

## Goals of the receive path

%(goals)s
## Method

%(method)s
## Every repetition

%(raw)s
""" % {
        "date": meta.get("date") or time.strftime("%Y-%m-%d %H:%M %Z"),
        "minutes": elapsed / 60.0,
        "command": command,
        "reps": reps, "n": "{:,}".format(int(n)), "rt": "{:,}".format(int(rt)),
        "backlog_n": "{:,}".format(int(backlog_n)), "backlog_clients": backlog_clients, "rate": rate,
        "cpu": m["cpu"], "cores": m["cores"], "memory": m["memory"], "kernel": m["kernel"], "debian": m["debian"],
        "rabbit": m["pkgs"]["rabbitmq-server"], "amq": m["pkgs"]["activemq"],
        "pystomp": m["pkgs"]["python3-stomp"], "netstomp": m["pkgs"]["libnet-stomp-perl"],
        "rubystomp": m["pkgs"]["ruby-stomp"], "stompjs": m["npm"]["@stomp/stompjs"],
        "tcpwrapper": m["npm"]["@stomp/tcp-wrapper"], "node": m["node"], "gxx": m["pkgs"]["g++"],
        "lib": lib or "this tree",
        "table": table_markdown(rows, clients),
        "plot": "![messages per second per client](performance.png)" if plotted else "",
        "errors": errors_markdown(results),
        "goals": goals_markdown(results),
        "method": method,
        "raw": raw_markdown(results),
    }
    with open(os.path.join(out, "performance.md"), "w") as f:
        f.write(doc)
    print("Wrote %s%s" % (os.path.join(out, "performance.md"), " and performance.png" if plotted else ""))


if __name__ == "__main__":
    saved = json.load(open(sys.argv[1]))
    write(saved["results"], saved["elapsed_s"], {"date": saved.get("date")})
