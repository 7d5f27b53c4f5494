#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""stomp.py (Debian's python3-stomp) in libtavren's client comparison.

    stomp_py.py MODE HOST PORT VERSION QUEUE N [EXTRA]

Same modes and output as bench/compare/floor_client.cpp: send, receive,
roundtrip, idle. The library's own listener thread receives; ACKs go out from
it. TCP_NODELAY is set on the library's socket after connecting, as every
client of the comparison runs without Nagle's delay.
"""
import os
import select
import socket
import sys
import threading
import time

import stomp

BODY = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789abcdefghijklmnopqrstuvwxyzAB"
TIMEOUT = float(os.environ.get("BENCH_CLIENT_TIMEOUT", "600"))


def now():
    return time.clock_gettime(time.CLOCK_MONOTONIC)


class Listener(stomp.ConnectionListener):
    def __init__(self, conn, version, expected, ack):
        self.conn = conn
        self.version = version
        self.expected = expected
        self.ack = ack
        self.cond = threading.Condition()
        self.messages = 0
        self.unique = 0
        self.dups = 0
        self.noseq = 0
        self.seen = bytearray(expected + 2)
        self.receipts = set()

    def on_message(self, frame):
        h = frame.headers
        if self.ack:
            if self.version == "1.2":
                self.conn.ack(h["ack"])
            elif self.version == "1.1":
                self.conn.ack(h["message-id"], h["subscription"])
            else:
                self.conn.ack(h["message-id"])
        seq = int(h.get("bench-seq", "0"))
        with self.cond:
            self.messages += 1
            if seq <= 0 or seq > self.expected:
                self.noseq += 1
            elif self.seen[seq]:
                self.dups += 1
            else:
                self.seen[seq] = 1
                self.unique += 1
            self.cond.notify_all()

    def on_receipt(self, frame):
        with self.cond:
            self.receipts.add(frame.headers.get("receipt-id"))
            self.cond.notify_all()

    def on_error(self, frame):
        sys.stderr.write("ERROR frame: %s %s\n" % (frame.headers.get("message"), frame.body))

    def wait(self, predicate, deadline):
        with self.cond:
            while not predicate():
                left = deadline - now()
                if left <= 0:
                    return False
                self.cond.wait(min(left, 0.1))
            return True


def main():
    mode, host, port, version, queue, n = sys.argv[1:7]
    port, n = int(port), int(n)
    extra = sys.argv[7] if len(sys.argv) > 7 else ""
    cls = {"1.0": stomp.Connection10, "1.1": stomp.Connection11, "1.2": stomp.Connection12}[version]
    # RabbitMQ reads the CONNECT "host" header as its virtual host: "/".
    conn = cls([(host, port)], vhost="/") if version != "1.0" else cls([(host, port)])
    listener = Listener(conn, version, n if mode == "receive" else 0, mode in ("receive", "roundtrip"))
    conn.set_listener("bench", listener)
    conn.connect("guest", "guest", wait=True)
    conn.transport.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    dest = "/queue/" + queue
    ackmode = "client" if version == "1.0" else "client-individual"
    deadline = now() + TIMEOUT

    def subscribe(ack, receipt=None):
        headers = {"receipt": receipt} if receipt else {}
        if version == "1.0":
            conn.subscribe(dest, id="0", ack=ack, headers=headers)
        else:
            conn.subscribe(dest, "0", ack=ack, headers=headers)

    if mode == "send":
        t0 = now()
        for _ in range(n):
            conn.send(dest, BODY)
        # The end marker of every client: a subscription with a receipt, answered
        # once the broker has handled every frame before it.
        conn.subscribe(dest + "-ctl", id="ctl", ack="auto", headers={"receipt": "last"})
        listener.wait(lambda: "last" in listener.receipts, deadline)
        t1 = now()
        conn.disconnect()
        print('RESULT {"t0": %.6f, "t1": %.6f, "n": %d, "version": "%s"}' % (t0, t1, n, version), flush=True)
    elif mode == "receive":
        t0 = now()
        subscribe(ackmode)
        if listener.wait(lambda: listener.unique >= n, deadline):
            print("GOT %.6f" % now(), flush=True)
            select.select([sys.stdin], [], [], TIMEOUT)
        else:
            sys.stderr.write("gave up after the client time-out\n")
        conn.disconnect()
        print('RESULT {"t0": %.6f, "got": %d, "unique": %d, "dups": %d, "gaps": %d, "noseq": %d, "version": "%s"}'
              % (t0, listener.messages, listener.unique, listener.dups, n - listener.unique, listener.noseq, version),
              flush=True)
    elif mode == "roundtrip":
        subscribe(ackmode, "sub")
        listener.wait(lambda: "sub" in listener.receipts, deadline)
        lat = []
        for i in range(1, n + 1):
            t = now()
            conn.send(dest, BODY)
            if not listener.wait(lambda: listener.messages >= i, deadline):
                sys.stderr.write("message %d did not come back\n" % i)
                break
            lat.append((now() - t) * 1e6)
        time.sleep(0.2)
        conn.disconnect()
        print('RESULT {"lat_us": [%s], "version": "%s"}' % (",".join("%.1f" % v for v in lat), version), flush=True)
    elif mode == "idle":
        subscribe(ackmode, "sub")
        listener.wait(lambda: "sub" in listener.receipts, deadline)
        print("READY", flush=True)
        select.select([sys.stdin], [], [], TIMEOUT)
        conn.disconnect()
        print('RESULT {"version": "%s"}' % version, flush=True)
    else:
        sys.exit("unknown mode " + mode)


if __name__ == "__main__":
    main()
