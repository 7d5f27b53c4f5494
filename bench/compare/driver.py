#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Runs libtavren's client comparison and writes docs/performance.md and .png.

Started by scripts/bench.sh, which builds the programs and starts the
brokers. Every client is a separate program with the same command line
(MODE HOST PORT VERSION QUEUE N [EXTRA]) and output ("READY", "GOT",
"RESULT {json}"); see bench/compare/floor_client.cpp. The send workloads
also run the floor client with FLOOR_BATCH=1 (one frame per write) as
"floor (1 write per frame)".

Environment: BENCH_REPS (3), BENCH_N (20000), BENCH_BACKLOG_N (100000),
BENCH_RT (1000), BENCH_ONLY=workload,... (send, send-discard, receive,
roundtrip, ackdelay, footprint, backlog), BENCH_BACKLOG_CLIENTS (floor,libtavren),
BENCH_CLIENTS (every client; e.g. "floor,libtavren pool(4),stompjs"),
BENCH_ACKDELAY_RATE (messages per second of the stream, 1000),
BENCH_OUT (folder for docs; empty: print only), BENCH_NODE_MODULES (the
node_modules folder with @stomp/stompjs and @stomp/tcp-wrapper; scripts/bench.sh
installs them).
"""
import json
import os
import queue
import statistics
import subprocess
import sys
import threading
import time

HOST = "127.0.0.1"
HERE = os.path.dirname(os.path.abspath(__file__))
BIN = os.environ["BENCH_BIN"]  # folder with the C++ programs
WORK = os.environ["BENCH_WORK"]  # folder for logs and raw results
PID = os.getpid()

REPS = int(os.environ.get("BENCH_REPS", "3"))
N = int(os.environ.get("BENCH_N", "20000"))
BACKLOG_N = int(os.environ.get("BENCH_BACKLOG_N", "100000"))
RT = int(os.environ.get("BENCH_RT", "1000"))
ACKDELAY_RATE = float(os.environ.get("BENCH_ACKDELAY_RATE", "1000"))
STALL = float(os.environ.get("BENCH_STALL_S", "10"))  # a receive without a new ACK for this long has failed
ALL_WORKLOADS = ["send", "send-discard", "receive", "roundtrip", "ackdelay", "footprint", "backlog"]
ONLY = [w for w in os.environ.get("BENCH_ONLY", "").split(",") if w] or ALL_WORKLOADS
# libtavren a second, third and fourth time: on a worker pool of one and of
# four threads (useWorkerPool), and on four with in-order delivery.
POOL1, POOL4, POOL4_ORDERED = "libtavren pool(1)", "libtavren pool(4)", "libtavren pool(4)+ordered"
POOLS = [POOL1, POOL4, POOL4_ORDERED]
CLIENTS = ["floor", "libtavren"] + POOLS + ["stomp.py", "Net::Stomp", "ruby-stomp", "stompjs"]
# The floor a second time, writing one frame per write, for the send workloads
# only: the limit for a client whose send call puts its frame on the wire
# before it returns (the batched floor is the limit of the socket).
FLOOR1 = "floor (1 write per frame)"
SEND_CLIENTS = ["floor", FLOOR1, "libtavren", "stomp.py", "Net::Stomp", "ruby-stomp", "stompjs"]
CLIENT_ENV = {FLOOR1: {"FLOOR_BATCH": "1"},
              POOL1: {"BENCH_TAVREN_POOL": "1"},
              POOL4: {"BENCH_TAVREN_POOL": "4"},
              POOL4_ORDERED: {"BENCH_TAVREN_POOL": "4", "BENCH_TAVREN_ORDERED": "1"}}
OTHERS = ["stomp.py", "Net::Stomp", "ruby-stomp", "stompjs"]
BACKLOG_CLIENTS = [c for c in os.environ.get("BENCH_BACKLOG_CLIENTS", "floor,libtavren").split(",") if c]
# BENCH_CLIENTS=name,...: only these clients (all by default), for a longer run of a few.
CHOSEN = [c for c in os.environ.get("BENCH_CLIENTS", "").split(",") if c]
if CHOSEN:
    for c in CHOSEN:
        if c not in CLIENTS + SEND_CLIENTS:
            sys.exit("unknown client %s (BENCH_CLIENTS)" % c)
    CLIENTS = [c for c in CLIENTS if c in CHOSEN]
    SEND_CLIENTS = [c for c in SEND_CLIENTS if c in CHOSEN]
BROKERS = {"rabbitmq": int(os.environ.get("TAVREN_RABBITMQ_PORT", "61623")),
           "activemq": int(os.environ.get("TAVREN_ACTIVEMQ_PORT", "61633"))}
BROKER_NAMES = {"rabbitmq": "RabbitMQ", "activemq": "ActiveMQ", "discard": "discard server"}
# The version each client offers: 1.2 to RabbitMQ; 1.1 to ActiveMQ, which
# refuses libtavren's 1.2 ACK (docs/brokers.md) and where 1.1 serves every client.
VERSIONS = {"rabbitmq": "1.2", "activemq": "1.1", "discard": "1.2"}
SHORT = {"floor": "floor", FLOOR1: "floor1", "libtavren": "tavren", "stomp.py": "stomppy", "Net::Stomp": "netstomp",
         "ruby-stomp": "rubystomp", "stompjs": "stompjs", POOL1: "tavrenpool1", POOL4: "tavrenpool4",
         POOL4_ORDERED: "tavrenpool4o"}
for w in ONLY:
    if w not in ALL_WORKLOADS:
        sys.exit("unknown workload %s (BENCH_ONLY)" % w)


def now():
    return time.clock_gettime(time.CLOCK_MONOTONIC)


def log(text):
    print("[bench %s] %s" % (time.strftime("%H:%M:%S"), text), flush=True)


def client_env(client, name):
    """What a client's process gets in its environment: its CLIENT_ENV, and where libtavren writes its log."""
    env = {"BENCH_TAVREN_LOG": os.path.join(WORK, "logs", name + ".tavren.log")}
    env.update(CLIENT_ENV.get(client, {}))
    return env


def client_cmd(client, mode, port, version, q, n, extra=None):
    scripts = os.path.join(HERE, "clients")
    head = {
        "floor": [os.path.join(BIN, "floor_client")],
        FLOOR1: [os.path.join(BIN, "floor_client")],  # with CLIENT_ENV
        "libtavren": [os.path.join(BIN, "tavren_client")],
        POOL1: [os.path.join(BIN, "tavren_client")],  # with CLIENT_ENV
        POOL4: [os.path.join(BIN, "tavren_client")],
        POOL4_ORDERED: [os.path.join(BIN, "tavren_client")],
        "stomp.py": ["/usr/bin/python3", os.path.join(scripts, "stomp_py.py")],
        "Net::Stomp": ["/usr/bin/perl", os.path.join(scripts, "net_stomp.pl")],
        "ruby-stomp": ["/usr/bin/ruby", os.path.join(scripts, "ruby_stomp.rb")],
        # Finds the packages through BENCH_NODE_MODULES (ES modules do not read NODE_PATH).
        "stompjs": ["/usr/bin/node", os.path.join(scripts, "stompjs.mjs")],
    }[client]
    cmd = head + [mode, HOST, str(port), version, q, str(n)]
    if extra is not None:
        cmd.append(str(extra))
    return cmd


class Proc:
    """A child with its stdout lines in a queue, stdin for commands, rusage at the end."""

    def __init__(self, cmd, name, timeout, env_extra=None):
        env = dict(os.environ)
        env["BENCH_CLIENT_TIMEOUT"] = str(timeout)
        env.update(env_extra or {})
        self.name = name
        self.err = open(os.path.join(WORK, "logs", name + ".stderr"), "ab")
        self.p = subprocess.Popen(cmd, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.err,
                                  env=env, text=True, bufsize=1)
        self.pid = self.p.pid
        self.lines = queue.Queue()
        self.all = []
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        self.rusage = None
        self.rc = None

    def _read(self):
        for line in self.p.stdout:
            line = line.rstrip("\n")
            self.all.append(line)
            self.lines.put(line)
        self.lines.put(None)

    def wait_for(self, prefix, timeout):
        """The first line starting with prefix within timeout, or None."""
        until = now() + timeout
        while True:
            left = until - now()
            if left <= 0:
                return None
            try:
                line = self.lines.get(timeout=min(left, 0.5))
            except queue.Empty:
                continue
            if line is None:
                self.lines.put(None)
                return None
            if line.startswith(prefix):
                return line

    def tell(self, text="done"):
        try:
            self.p.stdin.write(text + "\n")
            self.p.stdin.flush()
        except (BrokenPipeError, ValueError, OSError):
            pass

    def finish(self, timeout):
        """Waits for the end (kills after timeout); returns the exit status."""
        until = now() + timeout
        while True:
            pid, status, ru = os.wait4(self.pid, os.WNOHANG)
            if pid == self.pid:
                break
            if now() > until:
                log("%s did not end within %ss; killing pid %d" % (self.name, timeout, self.pid))
                self.p.kill()
                pid, status, ru = os.wait4(self.pid, 0)
                break
            time.sleep(0.02)
        self.rusage = ru
        self.rc = os.waitstatus_to_exitcode(status)
        self.p.returncode = self.rc  # reaped here, not by Popen
        self.reader.join(5)
        try:
            self.p.stdin.close()
        except OSError:
            pass
        self.err.close()
        return self.rc

    def cpu(self):
        return self.rusage.ru_utime + self.rusage.ru_stime

    def result(self):
        for line in reversed(self.all):
            if line.startswith("RESULT "):
                return json.loads(line[7:])
        return None


def floor(mode, port, version, q, n, extra=None, timeout=300):
    """Runs the floor client for an untimed chore (fill, drain); returns its RESULT."""
    p = Proc(client_cmd("floor", mode, port, version, q, n, extra), "floor-%s-%s" % (mode, q), timeout)
    p.finish(timeout)
    r = p.result()
    if r is None:
        raise RuntimeError("floor %s on %s failed (see logs/%s.stderr)" % (mode, q, p.name))
    return r


def record_stall(pid, name):
    """What a client that stopped acknowledging was doing: its sockets' queues
    (bytes waiting in its receive queue: it stopped reading; none: the broker
    stopped sending) and, with gdb, its threads' stacks. In logs/NAME.stall."""
    path = os.path.join(WORK, "logs", name + ".stall")
    with open(path, "w") as f:
        for cmd in (["ss", "-tnpi"], ["gdb", "-p", str(pid), "-batch", "-ex", "thread apply all bt 12"]):
            try:
                r = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=60, text=True)
                f.write("$ %s\n%s\n" % (" ".join(cmd), r.stdout))
            except (OSError, subprocess.TimeoutExpired) as e:
                f.write("$ %s\n%s\n" % (" ".join(cmd), e))
    print("[bench] %s stalled: sockets and stacks in %s" % (name, path), flush=True)


def drain(port, version, q, quiet_ms=1000):
    """Empties the queue with automatic ACK; the number of messages that were left."""
    return floor("drain", port, version, q, 0, quiet_ms)["drained"]


def status_of(pid):
    out = {}
    try:
        with open("/proc/%d/status" % pid) as f:
            for line in f:
                key, _, value = line.partition(":")
                out[key] = value.strip()
    except OSError:
        pass
    return out


def kib(value):
    return int(value.split()[0]) if value else 0


def cpu_ns(pid):
    """CPU time of every thread of pid so far, from /proc schedstat (nanoseconds)."""
    total = 0
    try:
        for tid in os.listdir("/proc/%d/task" % pid):
            try:
                with open("/proc/%d/task/%s/schedstat" % (pid, tid)) as f:
                    total += int(f.read().split()[0])
            except OSError:
                pass
    except OSError:
        pass
    return total


def percentile(values, p):
    s = sorted(values)
    if not s:
        return None
    k = max(0, min(len(s) - 1, int(round(p / 100.0 * len(s) + 0.5)) - 1))
    return s[k]


# ---------------------------------------------------------------- workloads

def run_send(broker, client, rep):
    port = BROKERS.get(broker)
    discard = broker == "discard"
    if discard:
        port = DISCARD_PORT
    version = VERSIONS[broker]
    q = "bench-%s-%s-%d-%d" % ("senddiscard" if discard else "send", SHORT[client], rep, PID)
    name = "send-%s-%s-%d" % (broker, SHORT[client], rep)
    p = Proc(client_cmd(client, "send", port, version, q, N), name, 300, client_env(client, name))
    p.finish(320)
    r = p.result()
    out = {"cpu_s": p.cpu()}
    if r is None:
        out["error"] = "no result (exit %s)" % p.rc
        return out
    out["rate"] = N / (r["t1"] - r["t0"])
    if not discard:
        out["arrived"] = drain(port, version, q, 500)
        if out["arrived"] != N:
            out["error"] = "%d of %d arrived" % (out["arrived"], N)
    return out


def run_receive(broker, client, rep, n, workload, timeout, watch=False):
    port = BROKERS[broker]
    version = VERSIONS[broker]
    q = "bench-%s-%s-%d-%d" % (workload, SHORT[client], rep, PID)
    name = "%s-%s-%s-%d" % (workload, broker, SHORT[client], rep)
    floor("fill", port, version, q, n)  # untimed; the receipt on the last one: all are queued
    relay = Proc([os.path.join(BIN, "ack_relay"), HOST, str(port), str(n), os.path.join(WORK, "logs", name + ".acks")],
                 name + "-relay", timeout)
    rport = int(relay.wait_for("PORT", 10).split()[1])
    env = client_env(client, name)
    tavren_log = env["BENCH_TAVREN_LOG"]
    p = Proc(client_cmd(client, "receive", rport, version, q, n), name, timeout, env)
    peak = {"threads": 0, "rss": 0, "stop": False}

    def poll_status():
        while not peak["stop"]:
            st = status_of(p.pid)
            if st:
                peak["threads"] = max(peak["threads"], int(st.get("Threads", "0")))
                peak["rss"] = max(peak["rss"], kib(st.get("VmRSS")))
            time.sleep(0.01)

    watcher = None
    if watch:
        watcher = threading.Thread(target=poll_status, daemon=True)
        watcher.start()
    reached = None
    until = now() + timeout
    progress = now()  # when the relay last saw a new ACK
    stalled = False
    while now() < until:
        try:
            line = relay.lines.get(timeout=0.5)
        except queue.Empty:
            line = ""
        if line is None or p.p.poll() is not None:
            break
        if line.startswith("REACHED"):
            reached = line
            break
        if line.startswith("ACKS"):
            progress = now()
        if now() - progress > STALL:
            stalled = True
            break
    if stalled:
        record_stall(p.pid, name)
    hwm = kib(status_of(p.pid).get("VmHWM"))
    peak["stop"] = True
    if watcher:
        watcher.join()
    p.tell("done")
    # A client that did not get everything may not read its standard input: it is ended sooner.
    p.finish(30 if reached else 5)
    relay.finish(10)
    r = p.result() or {}
    end = next((line for line in relay.all if line.startswith("END")), None)
    out = {"cpu_s": p.cpu(), "got": r.get("got"), "dups": r.get("dups"), "gaps": r.get("gaps")}
    # The clock: from the SUBSCRIBE to the last ACK, both as the relay saw them leave the client.
    fields = end.split() if end else []
    acks = int(fields[1]) if fields else 0
    out["acks"] = acks
    if acks and float(fields[4]) > 0:
        out["seconds"] = float(fields[3]) - float(fields[4])
        count = n if reached else acks
        out["rate"] = count / out["seconds"]
        out["cpu_us_per_msg"] = out["cpu_s"] / count * 1e6
    if not reached:
        # The figures above then cover the messages it did acknowledge.
        out["error"] = "%s ACKs of %d seen by the relay (%s); the client got %s" % (
            acks, n, "no new ACK for %d s" % STALL if stalled else "time-out %d s" % timeout, r.get("got"))
    out["left"] = drain(port, version, q, 1000)
    if out["left"]:
        out.setdefault("error", "%d messages left in the queue" % out["left"])
    if watch:
        out["peak_threads"] = peak["threads"]
        out["peak_rss_mib"] = max(hwm, peak["rss"]) / 1024.0
    if client == "libtavren" and os.path.exists(tavren_log):
        with open(tavren_log, errors="replace") as f:
            out["left_unacknowledged_lines"] = sum(1 for line in f if "left unacknowledged" in line)
    return out


def run_roundtrip(broker, client, rep):
    port = BROKERS[broker]
    version = VERSIONS[broker]
    q = "bench-roundtrip-%s-%d-%d" % (SHORT[client], rep, PID)
    name = "roundtrip-%s-%s-%d" % (broker, SHORT[client], rep)
    p = Proc(client_cmd(client, "roundtrip", port, version, q, RT), name, 300, client_env(client, name))
    p.finish(320)
    r = p.result()
    out = {}
    if not r or not r.get("lat_us"):
        out["error"] = "no result (exit %s)" % p.rc
    else:
        lat = r["lat_us"]
        out["median_us"] = statistics.median(lat)
        out["p99_us"] = percentile(lat, 99)
        if len(lat) != RT:
            out["error"] = "%d of %d round trips" % (len(lat), RT)
    left = drain(port, version, q, 500)
    if left:
        out["left"] = left
    return out


def run_ackdelay(broker, rep):
    port = BROKERS[broker]
    version = VERSIONS[broker]
    q = "bench-ackdelay-tavren-%d-%d" % (rep, PID)
    name = "ackdelay-%s-tavren-%d" % (broker, rep)
    ackfile = os.path.join(WORK, "logs", name + ".acks")
    endfile = os.path.join(WORK, "logs", name + ".ends")
    timeout = N / ACKDELAY_RATE + 120
    relay = Proc([os.path.join(BIN, "ack_relay"), HOST, str(port), str(N), ackfile], name + "-relay", timeout)
    rport = int(relay.wait_for("PORT", 10).split()[1])
    p = Proc(client_cmd("libtavren", "ackdelay", rport, version, q, N, endfile), name, timeout,
             client_env("libtavren", name))
    out = {}
    if not p.wait_for("READY", 30):
        out["error"] = "libtavren did not subscribe"
    sender = Proc(client_cmd("floor", "fill", port, version, q, N, ACKDELAY_RATE), name + "-sender", timeout)
    reached = relay.wait_for("REACHED", timeout)
    p.tell("done")
    p.finish(30)
    relay.finish(10)
    sender.finish(30)
    ends = {}
    if os.path.exists(endfile):
        with open(endfile) as f:
            for line in f:
                key, t = line.rsplit(" ", 1)
                ends[key] = float(t)
    delays = []
    if os.path.exists(ackfile):
        with open(ackfile) as f:
            for line in f:
                key, t = line.rsplit(" ", 1)
                if key in ends:
                    delays.append((float(t) - ends[key]) * 1e6)
    if delays:
        out["median_us"] = statistics.median(delays)
        out["p99_us"] = percentile(delays, 99)
        out["matched"] = len(delays)
    if not reached or len(delays) != N:
        out.setdefault("error", "%d of %d ACKs matched" % (len(delays), N))
    out["left"] = drain(port, version, q, 1000)
    return out


def run_footprint(broker, rep):
    """All clients idle at once, each with one subscription (they are idle, so they do not disturb each other)."""
    port = BROKERS[broker]
    version = VERSIONS[broker]
    procs = {}
    for client in CLIENTS:
        q = "bench-footprint-%s-%d-%d" % (SHORT[client], rep, PID)
        name = "footprint-%s-%s-%d" % (broker, SHORT[client], rep)
        procs[client] = Proc(client_cmd(client, "idle", port, version, q, 0), name, 120, client_env(client, name))
    ready = {c: bool(p.wait_for("READY", 30)) for c, p in procs.items()}
    time.sleep(2)
    out = {}
    before = {}
    for client, p in procs.items():
        st = status_of(p.pid)
        out[client] = {"rss_mib": kib(st.get("VmRSS")) / 1024.0, "threads": int(st.get("Threads", "0"))}
        if not ready[client]:
            out[client]["error"] = "not ready"
        before[client] = cpu_ns(p.pid)
    time.sleep(5)
    for client, p in procs.items():
        out[client]["idle_cpu_ms"] = (cpu_ns(p.pid) - before[client]) / 1e6
    for p in procs.values():
        p.tell("done")
    for p in procs.values():
        p.finish(30)
    return out


# ---------------------------------------------------------------- the run

def rotated(items, k):
    if not items:  # BENCH_CLIENTS chose none of them
        return items
    k %= len(items)
    return items[k:] + items[:k]


def record(results, workload, broker, client, rep, value):
    results.setdefault(workload, {}).setdefault(broker, {}).setdefault(client, []).append(value)
    shown = {k: (round(v, 1) if isinstance(v, float) else v) for k, v in value.items()}
    log("%-12s %-8s %-10s rep %d: %s" % (workload, broker, client, rep, json.dumps(shown)))


def main():
    global DISCARD_PORT
    os.makedirs(os.path.join(WORK, "logs"), exist_ok=True)
    started = time.time()
    date = time.strftime("%Y-%m-%d %H:%M %Z")
    discard = None
    if "send-discard" in ONLY:
        discard = subprocess.Popen([os.path.join(BIN, "discard_server")], stdout=subprocess.PIPE, text=True)
        DISCARD_PORT = int(discard.stdout.readline().split()[1])
    results = {}
    try:
        for rep in range(1, REPS + 1):
            log("repetition %d of %d" % (rep, REPS))
            order = rotated(CLIENTS, rep - 1)
            send_order = rotated(SEND_CLIENTS, rep - 1)
            for workload in [w for w in ALL_WORKLOADS if w in ONLY]:
                if workload == "send-discard":
                    for client in send_order:
                        record(results, workload, "discard", client, rep, run_send("discard", client, rep))
                    continue
                for broker in BROKERS:
                    if workload == "send":
                        for client in send_order:
                            record(results, workload, broker, client, rep, run_send(broker, client, rep))
                    elif workload == "receive":
                        for client in order:
                            record(results, workload, broker, client, rep,
                                   run_receive(broker, client, rep, N, "receive", max(120, N / 100)))
                    elif workload == "roundtrip":
                        for client in order:
                            record(results, workload, broker, client, rep, run_roundtrip(broker, client, rep))
                    elif workload == "ackdelay":
                        record(results, workload, broker, "libtavren", rep, run_ackdelay(broker, rep))
                    elif workload == "footprint":
                        for client, value in run_footprint(broker, rep).items():
                            record(results, workload, broker, client, rep, value)
                    elif workload == "backlog":
                        for client in [c for c in order if c in BACKLOG_CLIENTS]:
                            record(results, workload, broker, client, rep,
                                   run_receive(broker, client, rep, BACKLOG_N, "backlog", max(300, BACKLOG_N / 200),
                                               watch=True))
    finally:
        if discard:
            discard.kill()
            discard.wait()
    elapsed = time.time() - started
    with open(os.path.join(WORK, "results.json"), "w") as f:
        json.dump({"results": results, "elapsed_s": elapsed, "date": date, "reps": REPS, "n": N, "backlog_n": BACKLOG_N,
                   "rt": RT, "ackdelay_rate": ACKDELAY_RATE}, f, indent=1)
    import report
    report.write(results, elapsed, {"date": date})


if __name__ == "__main__":
    sys.dont_write_bytecode = True  # no __pycache__ in the source tree
    sys.path.insert(0, HERE)
    main()
