#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the seed corpus of the fuzz targets: fuzz/corpus/<target>/.

Real frames come from RabbitMQ and ActiveMQ on loopback, read off a raw
socket exactly as the brokers sent them (start them with scripts/rabbitmq.sh
and scripts/activemq.sh). Each broker gets a session that connects asking
for heart-beats, subscribes, receives three messages (text with escaped
header values, a body with NULs and a content-length, a body without one),
acknowledges them and disconnects, plus sessions that end in ERROR frames
(a wrong passcode, an unknown command, a SUBSCRIBE without destination) and
one that connects without naming a version. Hand-made seeds add what the
brokers do not send: carriage returns, cut frames, bad content-lengths,
lines without a colon, NULs in headers.

    /usr/bin/python3 fuzz/make_corpus.py [RABBITMQ_PORT [ACTIVEMQ_PORT]]

Files the script writes are replaced; others in the folders are left alone.
Every seed stays below 4 KiB: libFuzzer makes its inputs as large as the
largest seed, and larger inputs run markedly slower through the connection
target's socket without reaching more code (frames larger than the
connection's 16 KiB buffer are left to the unit tests).
"""
import os
import socket
import sys
import time

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")
BROKERS = (("rabbitmq", "RabbitMQ/", int(sys.argv[1]) if len(sys.argv) > 1 else 61623),
           ("activemq", "ActiveMQ/", int(sys.argv[2]) if len(sys.argv) > 2 else 61633))
LOGIN = b"login:guest\npasscode:guest\n"


def frame(command, headers=(), body=b""):
    out = command.encode() + b"\n"
    for name, value in headers:
        out += name.encode() + b":" + (value if isinstance(value, bytes) else value.encode()) + b"\n"
    return out + b"\n" + body + b"\0"


def connect_frame(version="1.2", heart_beat="0,1000", passcode="guest"):
    headers = [("host", "/"), ("login", "guest"), ("passcode", passcode), ("heart-beat", heart_beat)]
    if version:
        headers.insert(0, ("accept-version", version))
    return frame("CONNECT", headers)


def talk(port, frames, linger=1.0):
    """Sends the frames one by one and returns every byte the broker sent until it closed or was quiet."""
    s = socket.create_connection(("127.0.0.1", port), timeout=10)
    s.settimeout(0.1)
    received = b""
    for f in frames:
        s.sendall(f)
        end = time.time() + 0.5
        while time.time() < end:
            try:
                chunk = s.recv(65536)
            except socket.timeout:
                continue
            except ConnectionResetError:
                chunk = b""
            if not chunk:
                s.close()
                return received
            received += chunk
    end = time.time() + linger
    while time.time() < end:
        try:
            chunk = s.recv(65536)
        except socket.timeout:
            continue
        except ConnectionResetError:
            break
        if not chunk:
            break
        received += chunk
    s.close()
    return received


def split_frames(stream):
    """The frames of a stream in order, each with the line feed that follows it; a heart-beat is b"\\n"."""
    frames = []
    pos = 0
    while pos < len(stream):
        if stream[pos:pos + 1] == b"\n":
            frames.append(b"\n")
            pos += 1
            continue
        end_of_headers = stream.find(b"\n\n", pos)
        if end_of_headers < 0:
            frames.append(stream[pos:])  # cut
            break
        end_of_headers += 2
        length = None
        for line in stream[pos:end_of_headers].split(b"\n")[1:]:
            if line.startswith(b"content-length:"):
                length = int(line.split(b":", 1)[1])
        end = end_of_headers + length if length is not None else stream.find(b"\0", end_of_headers)
        if end < 0 or end >= len(stream):
            frames.append(stream[pos:])  # cut
            break
        end += 1
        if stream[end:end + 1] == b"\n":
            end += 1
        frames.append(stream[pos:end])
        pos = end
    return frames


def wait_for(name, prefix, port):
    """Waits until the broker on port answers CONNECT as the expected broker (tests may restart them)."""
    deadline = time.time() + 120
    while time.time() < deadline:
        try:
            reply = talk(port, [connect_frame(), frame("DISCONNECT")], linger=0.2)
            if b"\nserver:" + prefix.encode() in reply:
                return
        except OSError:
            pass
        time.sleep(2)
    sys.exit("%s does not answer on 127.0.0.1:%d" % (name, port))


def capture(name, prefix, port):
    """Every stream a broker sends in the sessions above, by session name."""
    wait_for(name, prefix, port)
    queue = "/queue/tavren-corpus-%d" % os.getpid()
    text_headers = [("destination", queue), ("content-type", "text/plain"), ("content-length", "5"),
                    ("x-escaped", r"a\cb\nc\\d\re")]
    binary = b"\0\x01two NULs\0end"
    session = [
        connect_frame(),
        frame("SUBSCRIBE", [("id", "0"), ("destination", queue), ("ack", "client-individual"),
                            ("auto-delete", "true"), ("receipt", "r-sub")]),
        frame("SEND", text_headers + [("receipt", "r-text")], b"hello"),
        frame("SEND", [("destination", queue), ("content-type", "application/octet-stream"),
                       ("content-length", str(len(binary)))], binary),
        frame("SEND", [("destination", queue)], "ÄÖÜ ünïcödé, no content-length".encode()),
    ]
    streams = {}
    received = talk(port, session, linger=2.5)  # heart-beats come every second
    # The messages were not acknowledged: they go back to the queue when the
    # connection closes (RabbitMQ drops the queue with its last consumer), and
    # a second connection takes them with automatic acknowledgement and
    # unsubscribes, so that the brokers keep nothing of this.
    tidy = [connect_frame(heart_beat="0,0"),
            frame("SUBSCRIBE", [("id", "0"), ("destination", queue), ("ack", "auto"), ("auto-delete", "true")]),
            frame("UNSUBSCRIBE", [("id", "0")]), frame("DISCONNECT", [("receipt", "r-bye")])]
    streams["session"] = received
    streams["tidy"] = talk(port, tidy)
    streams["connect-1.0"] = talk(port, [connect_frame(version=None, heart_beat="0,0"),
                                         frame("DISCONNECT", [("receipt", "r-bye")])])
    streams["error-login"] = talk(port, [connect_frame(passcode="wrong")])
    streams["error-command"] = talk(port, [connect_frame(heart_beat="0,0"), frame("BOGUS")])
    streams["error-subscribe"] = talk(port, [connect_frame(heart_beat="0,0"),
                                             frame("SUBSCRIBE", [("id", "1"), ("receipt", "r-1")])])
    return streams


def capture_steadily(name, prefix, port):
    """capture(), again from the start when the broker went away in between (a test may restart it)."""
    for attempt in range(10):
        try:
            streams = capture(name, prefix, port)
            if len([f for f in split_frames(streams["session"]) if f.startswith(b"MESSAGE\n")]) == 3:
                return streams
            print("%s: the session was cut short; again" % name)
        except OSError as e:
            print("%s: %s; again" % (name, e))
        time.sleep(5)
    sys.exit("%s: no complete capture" % name)


def write(target, name, data):
    folder = os.path.join(ROOT, target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


def first(frames, command):
    for f in frames:
        if f.startswith(command + b"\n"):
            return f
    sys.exit("no %s frame captured" % command.decode())


def main():
    parser_seeds = {}
    connection_seeds = {}
    session_seeds = {}
    for name, prefix, port in BROKERS:
        streams = capture_steadily(name, prefix, port)
        frames = split_frames(streams["session"])
        messages = [f for f in frames if f.startswith(b"MESSAGE\n")]
        if len(messages) != 3:
            sys.exit("%s: %d messages instead of 3" % (name, len(messages)))
        connected = first(frames, b"CONNECTED")
        parser_seeds[name + "-connected"] = connected
        parser_seeds[name + "-receipt"] = first(frames, b"RECEIPT")
        for kind, message in zip(("text-escapes", "binary-length", "no-length"), messages):
            parser_seeds["%s-message-%s" % (name, kind)] = message
        parser_seeds[name + "-session"] = streams["session"]
        for error in ("error-login", "error-command", "error-subscribe"):
            parser_seeds[name + "-" + error] = first(split_frames(streams[error]), b"ERROR")
        parser_seeds[name + "-connected-1.0"] = first(split_frames(streams["connect-1.0"]), b"CONNECTED")

        session_seeds[name + "-connected"] = connected
        session_seeds[name + "-connected-1.0"] = parser_seeds[name + "-connected-1.0"]

        # The connection target: byte 0 holds the step count and the ending,
        # then the step bytes (chunk size class << 4 | time-out << 2 | mode).
        s = streams["session"]
        connection_seeds[name + "-session-whole"] = b"\x00" + s
        connection_seeds[name + "-session-bytewise"] = b"\x01\x00" + s
        connection_seeds[name + "-session-blocking-13"] = b"\x01\x75" + s
        connection_seeds[name + "-session-mixed"] = b"\x03\x20\xb3\x96" + s
        cut = messages[0][:len(messages[0]) // 2]
        connection_seeds[name + "-cut-then-close"] = b"\xe1\x41" + connected + cut
        connection_seeds[name + "-cut-then-reset"] = b"\xf1\x39" + connected + cut
        connection_seeds[name + "-error-then-interrupt"] = b"\xd1\x2a" + streams["error-command"]
        connection_seeds[name + "-session-1024-forever"] = b"\x01\xd9" + s
        connection_seeds[name + "-cut-waits-1ms"] = b"\x01\xfd" + connected + cut

    # What no broker sent here, by hand.
    parser_seeds.update({
        "heart-beats": b"\n\n\r\n\n",
        "crlf-lines": b"MESSAGE\r\ndestination:/queue/a\r\nmessage-id:1\r\n\r\nbody\0\n",
        "cut-in-command": b"MESSA",
        "cut-in-headers": b"MESSAGE\ndestination:/queue/a\nmessage-",
        "cut-in-sized-body": b"MESSAGE\ncontent-length:10\n\n01234",
        "sized-body-without-nul": b"MESSAGE\ncontent-length:3\n\nabcd\0\n",
        "negative-content-length": b"MESSAGE\ncontent-length:-1\n\nabc\0\n",
        "huge-content-length": b"MESSAGE\ncontent-length:4294967297\n\nx\0\n",
        "content-length-not-a-number": b"MESSAGE\ncontent-length:abc\n\n\0\n",
        "repeated-header": b"MESSAGE\ncontent-length:1\ncontent-length:3\nx:1\nx:2\n\nabc\0\n",
        "header-without-colon": b"MESSAGE\ndestination\n\nbody\0MESSAGE\n\n\0",
        "nul-in-header": b"MESSAGE\ndesti\0nation:/queue/a\n\nbody\0RECEIPT\nreceipt-id:1\n\n\0",
        "colons-in-value": b"MESSAGE\nmessage-id:ID:host-1:2:3\n:empty-name\nempty-value:\n\n\0",
    })
    session_seeds.update({
        "no-slash": frame("CONNECTED", [("server", "broker comment"), ("version", "1.1"), ("heart-beat", "0,0"),
                                        ("session", "s")]),
        "comments": frame("CONNECTED", [("server", "ActiveMQ/5.17.2  (two  blanks) x "), ("version", "1.2"),
                                        ("heart-beat", "5000"), ("session", "ID:x")]),
        "odd-versions": frame("CONNECTED", [("server", "RabbitMQ/3.10.8-rc1.2"), ("version", " 1.2.0.0.1"),
                                            ("heart-beat", ",,,"), ("session", "")]),
        "big-numbers": frame("CONNECTED", [("server", "x/99999999999.4294967296"), ("version", "4294967297.1"),
                                           ("heart-beat", "99999999999,-1"), ("session", "s")]),
        "missing-headers": frame("CONNECTED", [("version", "1.0")]),
    })
    for name, data in list(parser_seeds.items()) + list(connection_seeds.items()) + list(session_seeds.items()):
        if len(data) >= 4096:
            sys.exit("seed %s has %d bytes" % (name, len(data)))
    for name, data in parser_seeds.items():
        write("fuzz_frame_parser", name, data)
    for name, data in connection_seeds.items():
        write("fuzz_connection_read", name, data)
    for name, data in session_seeds.items():
        write("fuzz_session", name, data)
    print("corpus: %d frame parser, %d connection, %d session seeds in %s"
          % (len(parser_seeds), len(connection_seeds), len(session_seeds), ROOT))


if __name__ == "__main__":
    main()
