// SPDX-License-Identifier: Apache-2.0
// The raw-socket floor of the comparison: a minimal STOMP client on plain
// POSIX sockets, no library. It writes pre-built frames, gathering many into
// one write, and reads through one buffered reader that parses in place; the
// ACKs for every message of one read go out in one write. TCP_NODELAY is set,
// as libtavren sets it. What it reaches is the limit of the path (broker and
// loopback), not of any client.
//
//   floor_client MODE HOST PORT VERSION QUEUE N [EXTRA]
//
// FLOOR_BATCH=BYTES (environment) is the size from which gathered SEND frames
// are written (default 65536). FLOOR_BATCH=1 writes every frame on its own, as
// a client does whose send call puts its frame on the wire before it returns:
// the comparison runs the send workloads this way too, as a second floor.
// FLOOR_PREFETCH=N has the receiving modes ask the broker for at most N
// unacknowledged messages (prefetch-count and activemq.prefetchSize), as a
// subscription with ordered delivery does. FLOOR_SUB_ID=TEXT subscribes
// with the id TEXT instead of "0" (RabbitMQ repeats the id in every MESSAGE
// and ACK, so its length costs rate).
//
// MODE:
//   send       N messages of 100 bytes, then a SUBSCRIBE to QUEUE-ctl with a
//              receipt; the clock runs from the first write to the receipt
//   fill       N messages with a "bench-seq" header 1..N, a receipt on the
//              last one (the broker then holds them all); EXTRA, when given,
//              is a rate in messages per second (paced), otherwise as fast as
//              it can
//   receive    subscribes (client-individual; client for 1.0), ACKs each
//              message, counts "bench-seq" duplicates and gaps; prints "GOT"
//              when all N arrived and ends after a line on standard input
//   roundtrip  N times: send one message, wait for it on its own subscription
//   idle       connects, subscribes, prints "READY", ends after a line on stdin
//   drain      subscribes with automatic ACK and counts what arrives until
//              nothing came for EXTRA ms (default 1000)
// Prints one line "RESULT {json}" at the end. Times are CLOCK_MONOTONIC seconds.

#include "seq_tally.h"
#include "wire.h"

#include <algorithm>
#include <string>
#include <vector>

namespace {

const char* kBody =
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789abcdefghijklmnopqrstuvwxyzAB";

struct Args {
    std::string mode, host, version, queue, extra;
    int port = 0;
    long n = 0;
};

std::string connectFrame(const std::string& version) {
    std::string f = "CONNECT\naccept-version:" + version + "\nhost:/\nlogin:guest\npasscode:guest\n\n";
    f.push_back('\0');
    return f;
}

std::string sendFrame(const std::string& queue, long seq, const char* receipt) {
    std::string f = "SEND\ndestination:/queue/" + queue + "\ncontent-type:text/plain\ncontent-length:100\n";
    if (seq > 0) f += "bench-seq:" + std::to_string(seq) + "\n";
    if (receipt) f += std::string("receipt:") + receipt + "\n";
    f += "\n";
    f += kBody;
    f.push_back('\0');
    return f;
}

class Session {
public:
    Session(const Args& a) : args(a), fd(wire::connectTo(a.host.c_str(), a.port)), reader(fd) {
        wire::setNoDelay(fd);
        if (!wire::writeAll(fd, connectFrame(a.version))) wire::die("write CONNECT");
        wire::Frame f = expect();
        if (f.command != "CONNECTED") {
            std::fprintf(stderr, "no CONNECTED: %.*s\n", (int)f.command.size(), f.command.data());
            std::exit(1);
        }
        std::string v(f.header("version"));
        negotiated = v.empty() ? "1.0" : v;
    }

    // The next frame, reading as needed; ends the process on EOF.
    wire::Frame expect() {
        wire::Frame f;
        while (!reader.next(&f)) {
            if (reader.fill() <= 0) {
                std::fprintf(stderr, "connection closed by the broker\n");
                std::exit(1);
            }
        }
        if (f.command == "ERROR") {
            std::fprintf(stderr, "ERROR: %.*s %.*s\n", (int)f.header("message").size(), f.header("message").data(),
                         (int)f.body.size(), f.body.data());
        }
        return f;
    }

    void waitReceipt(std::string_view id) {
        for (;;) {
            wire::Frame f = expect();
            if (f.command == "RECEIPT" && f.header("receipt-id") == id) return;
        }
    }

    void subscribe(const char* ack, const char* receipt) {
        const char* id = std::getenv("FLOOR_SUB_ID");
        std::string f = "SUBSCRIBE\nid:" + std::string(id ? id : "0") + "\ndestination:/queue/" + args.queue +
                        "\nack:" + ack + "\n";
        if (const char* prefetch = std::getenv("FLOOR_PREFETCH")) {
            f += std::string("prefetch-count:") + prefetch + "\nactivemq.prefetchSize:" + prefetch + "\n";
        }
        if (receipt) f += std::string("receipt:") + receipt + "\n";
        f += "\n";
        f.push_back('\0');
        if (!wire::writeAll(fd, f)) wire::die("write SUBSCRIBE");
    }

    const char* clientAck() const { return negotiated == "1.0" ? "client" : "client-individual"; }

    // Appends the ACK for message f to out, in the form the session's version wants.
    void appendAck(const wire::Frame& f, std::string& out) const {
        if (negotiated == "1.2") {
            out += "ACK\nid:";
            out += f.header("ack");
        } else {
            out += "ACK\nmessage-id:";
            out += f.header("message-id");
            if (negotiated == "1.1") {
                out += "\nsubscription:";
                out += f.header("subscription");
            }
        }
        out += "\n\n";
        out.push_back('\0');
    }

    void disconnect() {
        std::string f = "DISCONNECT\nreceipt:bye\n\n";
        f.push_back('\0');
        if (wire::writeAll(fd, f)) {
            // Wait briefly for the receipt so the broker has everything before the close.
            pollfd p{fd, POLLIN, 0};
            double until = wire::now() + 2;
            wire::Frame fr;
            for (;;) {
                if (reader.next(&fr)) {
                    if (fr.command == "RECEIPT") break;
                    continue;
                }
                if (poll(&p, 1, 100) > 0 && reader.fill() <= 0) break;
                if (wire::now() > until) break;
            }
        }
        close(fd);
    }

    const Args& args;
    int fd;
    wire::Reader reader;
    std::string negotiated;
};

int runSend(const Args& a, bool withSeq) {
    Session s(a);
    double rate = (withSeq && !a.extra.empty()) ? std::atof(a.extra.c_str()) : 0;
    const std::string plain = sendFrame(a.queue, 0, nullptr);
    const size_t batchBytes = std::getenv("FLOOR_BATCH") ? std::atol(std::getenv("FLOOR_BATCH")) : 65536;
    std::string out;
    out.reserve(1 << 17);
    const double t0 = wire::now();
    for (long i = 1; i <= a.n; ++i) {
        const bool last = i == a.n;
        if (withSeq) {
            out += sendFrame(a.queue, i, last ? "last" : nullptr);
        } else {
            out += plain;
        }
        if (rate > 0) {
            // Paced: one frame per write, at its due time.
            const double due = t0 + (i - 1) / rate;
            double wait = due - wire::now();
            if (wait > 0) usleep(static_cast<useconds_t>(wait * 1e6));
            if (!wire::writeAll(s.fd, out)) wire::die("write SEND");
            out.clear();
        } else if (out.size() >= batchBytes || last) {
            if (!wire::writeAll(s.fd, out)) wire::die("write SEND");
            out.clear();
        }
    }
    if (!withSeq || a.n == 0) {
        // The same end marker as every client of the send measurement: a
        // subscription to QUEUE-ctl with a receipt. The broker answers it
        // once it has handled every frame before it.
        out = "SUBSCRIBE\nid:ctl\ndestination:/queue/" + a.queue + "-ctl\nack:auto\nreceipt:last\n\n";
        out.push_back('\0');
        if (!wire::writeAll(s.fd, out)) wire::die("write SUBSCRIBE");
    }
    s.waitReceipt("last");
    const double t1 = wire::now();
    s.disconnect();
    std::printf("RESULT {\"t0\": %.6f, \"t1\": %.6f, \"n\": %ld, \"version\": \"%s\"}\n", t0, t1, a.n,
                s.negotiated.c_str());
    return 0;
}

int runReceive(const Args& a) {
    Session s(a);
    SeqTally tally(a.n);
    long messages = 0;
    std::string acks;
    acks.reserve(1 << 16);
    const double t0 = wire::now();
    s.subscribe(s.clientAck(), nullptr);
    bool announced = false;
    const double deadline =
        t0 + (std::getenv("BENCH_CLIENT_TIMEOUT") ? std::atof(std::getenv("BENCH_CLIENT_TIMEOUT")) : 600);
    for (;;) {
        wire::Frame f;
        while (s.reader.next(&f)) {
            if (f.command != "MESSAGE") {
                if (f.command == "ERROR")
                    std::fprintf(stderr, "ERROR frame: %.*s\n", (int)f.body.size(), f.body.data());
                continue;
            }
            ++messages;
            s.appendAck(f, acks);
            std::string_view seqText = f.header("bench-seq");
            tally.count(seqText.empty() ? 0 : std::strtol(std::string(seqText).c_str(), nullptr, 10));
        }
        if (!acks.empty()) {
            if (!wire::writeAll(s.fd, acks)) wire::die("write ACK");
            acks.clear();
        }
        if (tally.unique >= a.n && !announced) {
            std::printf("GOT %.6f\n", wire::now());
            std::fflush(stdout);
            announced = true;
        }
        pollfd p[2] = {{s.fd, POLLIN, 0}, {0, POLLIN, 0}};
        int ready = poll(p, announced ? 2 : 1, 200);
        if (ready < 0 && errno != EINTR) wire::die("poll");
        if (announced && (p[1].revents & (POLLIN | POLLHUP))) break;
        if (p[0].revents & (POLLIN | POLLHUP | POLLERR)) {
            if (s.reader.fill() <= 0) {
                std::fprintf(stderr, "connection closed by the broker\n");
                break;
            }
        }
        if (wire::now() > deadline) {
            std::fprintf(stderr, "gave up after the client time-out with %ld of %ld\n", tally.unique, a.n);
            break;
        }
    }
    long gaps = a.n - tally.unique;
    s.disconnect();
    std::printf("RESULT {\"t0\": %.6f, \"got\": %ld, \"unique\": %ld, \"dups\": %ld, \"gaps\": %ld, \"noseq\": %ld, "
                "\"version\": \"%s\"}\n",
                t0, messages, tally.unique, tally.dups, gaps, tally.noSeq, s.negotiated.c_str());
    return 0;
}

int runRoundTrip(const Args& a) {
    Session s(a);
    s.subscribe(s.clientAck(), "sub");
    s.waitReceipt("sub");
    const std::string frame = sendFrame(a.queue, 0, nullptr);
    std::vector<double> lat;
    lat.reserve(a.n);
    std::string ack;
    for (long i = 0; i < a.n; ++i) {
        const double t = wire::now();
        if (!wire::writeAll(s.fd, frame)) wire::die("write SEND");
        for (;;) {
            wire::Frame f = s.expect();
            if (f.command != "MESSAGE") continue;
            lat.push_back((wire::now() - t) * 1e6);
            ack.clear();
            s.appendAck(f, ack);
            break;
        }
        if (!wire::writeAll(s.fd, ack)) wire::die("write ACK");
    }
    s.disconnect();
    std::string list;
    for (double v : lat) {
        if (!list.empty()) list += ",";
        char buf[32];
        std::snprintf(buf, sizeof buf, "%.1f", v);
        list += buf;
    }
    std::printf("RESULT {\"lat_us\": [%s], \"version\": \"%s\"}\n", list.c_str(), s.negotiated.c_str());
    return 0;
}

int runIdle(const Args& a) {
    Session s(a);
    s.subscribe(s.clientAck(), "sub");
    s.waitReceipt("sub");
    std::printf("READY\n");
    std::fflush(stdout);
    // Blocks until the driver says so; nothing arrives on the empty queue.
    wire::stdinReady(-1);
    s.disconnect();
    std::printf("RESULT {\"version\": \"%s\"}\n", s.negotiated.c_str());
    return 0;
}

int runDrain(const Args& a) {
    Session s(a);
    const int quietMs = a.extra.empty() ? 1000 : std::atoi(a.extra.c_str());
    s.subscribe("auto", nullptr);
    long count = 0;
    for (;;) {
        wire::Frame f;
        while (s.reader.next(&f)) {
            if (f.command == "MESSAGE") ++count;
        }
        pollfd p{s.fd, POLLIN, 0};
        if (poll(&p, 1, quietMs) <= 0) break;
        if (s.reader.fill() <= 0) break;
    }
    s.disconnect();
    std::printf("RESULT {\"drained\": %ld}\n", count);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 7) {
        std::fprintf(stderr, "usage: %s MODE HOST PORT VERSION QUEUE N [EXTRA]\n", argv[0]);
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    Args a;
    a.mode = argv[1];
    a.host = argv[2];
    a.port = std::atoi(argv[3]);
    a.version = argv[4];
    a.queue = argv[5];
    a.n = std::atol(argv[6]);
    if (argc > 7) a.extra = argv[7];
    if (a.mode == "send") return runSend(a, false);
    if (a.mode == "fill") return runSend(a, true);
    if (a.mode == "receive") return runReceive(a);
    if (a.mode == "roundtrip") return runRoundTrip(a);
    if (a.mode == "idle") return runIdle(a);
    if (a.mode == "drain") return runDrain(a);
    std::fprintf(stderr, "unknown mode %s\n", a.mode.c_str());
    return 2;
}
