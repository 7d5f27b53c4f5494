// SPDX-License-Identifier: Apache-2.0
// libtavren in the comparison, through its public API only
// (<tavren/tavren.h>, linked against the built libtavren.so), with the
// library's defaults for workers and stacks. Same command line and output as
// the raw floor client (floor_client.cpp):
//
//   tavren_client MODE HOST PORT VERSION QUEUE N [EXTRA]
//
// MODE:
//   send       N sendToQueue calls of 100 bytes, then listenOnQueue on the
//              queue QUEUE-ctl, which returns once the broker's receipt came:
//              the broker has then handled every SEND before it
//   receive    listens on QUEUE (the library ACKs each message after its
//              listener returns 0), counts "bench-seq" duplicates and gaps;
//              prints "GOT" when all N arrived, ends after a line on stdin
//   ackdelay   receive, and writes "message-id time" to the file EXTRA for
//              each message: the time at the end of onMessage
//   roundtrip  N times: sendToQueue one message, wait until the listener has it
//   idle       connects, listens, prints "READY", ends after a line on stdin
// The library's log goes to the file named by BENCH_TAVREN_LOG (or nowhere).
// Prints one line "RESULT {json}" at the end. Times are CLOCK_MONOTONIC seconds.

#include "seq_tally.h"

#include <tavren/tavren.h>

#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

namespace {

const char* kBody =
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789abcdefghijklmnopqrstuvwxyzAB";

double now() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec * 1e-9;
}

double clientTimeout() {
    const char* t = std::getenv("BENCH_CLIENT_TIMEOUT");
    return t ? std::atof(t) : 600;
}

// The library's lines go to a file, one per call, flushed so that a killed
// run still leaves its log.
class FileLogger : public tavren::Logger {
public:
    explicit FileLogger(const char* path) : file(path ? std::fopen(path, "w") : nullptr) {}
    ~FileLogger() override {
        if (file) std::fclose(file);
    }
    void logInfo(const std::string& message) override { write("INFO", message); }
    void logError(const std::string& message) override { write("ERROR", message); }

private:
    void write(const char* level, const std::string& message) {
        if (!file) return;
        std::fprintf(file, "%.6f %s: %s\n", now(), level, message.c_str());
        std::fflush(file);
    }
    FILE* file;
};

// Counts messages by their "bench-seq" header and wakes the main thread.
class CountingListener : public tavren::Listener {
public:
    CountingListener(long expected, bool recordTimes) : record(recordTimes), tally(expected) {
        if (record) {
            ends.assign(expected + 2, 0);
            ids.resize(expected + 2);
        }
    }

    int onMessage(kelvra::SharedPtr<tavren::Message> message) override {
        const tavren::HeaderMap& headers = message->headers();
        auto seqHeader = headers.find("bench-seq");
        const long seq = seqHeader == headers.end() ? 0 : std::atol(seqHeader->second.c_str());
        std::string id;
        if (record) {
            auto idHeader = headers.find("message-id");
            if (idHeader != headers.end()) id = idHeader->second;
        }
        std::lock_guard<std::mutex> lock(mutex);
        ++messages;
        tally.count(seq);
        if (record && tally.inRange(seq)) {
            ids[seq] = id;
            ends[seq] = now(); // the listener's last act before it returns
        }
        // Only a waiter whose count is reached is woken: a wake-up per
        // message would cost more than the library's own work.
        if (tally.unique >= wantedUnique || messages >= wantedMessages) changed.notify_all();
        return 0;
    }

    // Waits until n distinct messages arrived or the deadline passed.
    bool waitUnique(long n, double deadline) {
        std::unique_lock<std::mutex> lock(mutex);
        wantedUnique = n;
        while (tally.unique < n) {
            if (now() > deadline) return false;
            changed.wait_for(lock, std::chrono::milliseconds(100));
        }
        return true;
    }

    // Waits until the listener was called n times in all (round trip).
    bool waitMessages(long n, double deadline) {
        std::unique_lock<std::mutex> lock(mutex);
        wantedMessages = n;
        while (messages < n) {
            if (now() > deadline) return false;
            changed.wait_for(lock, std::chrono::milliseconds(100));
        }
        return true;
    }

    const bool record;
    std::mutex mutex;
    std::condition_variable changed;
    SeqTally tally;
    std::vector<double> ends;
    std::vector<std::string> ids;
    long messages = 0;
    // What the waiter waits for (the highest count: nobody waits).
    long wantedUnique = LONG_MAX;
    long wantedMessages = LONG_MAX;
};

// A listener for the control queue of the send measurement; nothing arrives.
class IdleListener : public tavren::Listener {
public:
    int onMessage(kelvra::SharedPtr<tavren::Message>) override { return 0; }
};

bool connect(tavren::StompClient& client, const std::string& version) {
    client.openConnection(1000, kelvra::utility::Version(version));
    const double until = now() + 30;
    while (!client.isConnected()) {
        if (now() > until) return false;
        usleep(10 * 1000);
    }
    return true;
}

void waitForStdinLine() {
    pollfd p{0, POLLIN, 0};
    poll(&p, 1, static_cast<int>(clientTimeout() * 1000));
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 7) {
        std::fprintf(stderr, "usage: %s MODE HOST PORT VERSION QUEUE N [EXTRA]\n", argv[0]);
        return 2;
    }
    const std::string mode = argv[1];
    const std::string host = argv[2];
    const int port = std::atoi(argv[3]);
    const std::string version = argv[4];
    const std::string queue = argv[5];
    const long n = std::atol(argv[6]);
    const std::string extra = argc > 7 ? argv[7] : "";

    FileLogger logger(std::getenv("BENCH_TAVREN_LOG"));
    tavren::StompClient* client = new tavren::StompClient(host, port, "guest", "guest", &logger, nullptr);
    // The ways of delivery besides a thread per message (docs/receiving.md).
    if (const char* pool = std::getenv("BENCH_TAVREN_POOL")) client->useWorkerPool(std::atoi(pool));
    if (const char* ordered = std::getenv("BENCH_TAVREN_ORDERED")) {
        if (std::string(ordered) == "1") client->enableOrderedDelivery();
    }
    if (!connect(*client, version)) {
        std::fprintf(stderr, "libtavren did not connect within 30 s\n");
        return 1;
    }
    const double deadline = now() + clientTimeout();
    int status = 0;

    if (mode == "send") {
        IdleListener control;
        const double t0 = now();
        for (long i = 0; i < n; ++i) client->sendToQueue(queue, kBody, nullptr);
        client->listenOnQueue(queue + "-ctl", &control); // returns with the broker's receipt
        const double t1 = now();
        client->closeConnection();
        delete client;
        std::printf("RESULT {\"t0\": %.6f, \"t1\": %.6f, \"n\": %ld, \"version\": \"%s\"}\n", t0, t1, n,
                    version.c_str());
        return 0;
    }

    if (mode == "receive" || mode == "ackdelay") {
        CountingListener listener(n, mode == "ackdelay");
        const double t0 = now();
        client->listenOnQueue(queue, &listener);
        std::printf("READY %.6f\n", now());
        std::fflush(stdout);
        if (listener.waitUnique(n, deadline)) {
            std::printf("GOT %.6f\n", now());
            std::fflush(stdout);
            waitForStdinLine();
        } else {
            std::fprintf(stderr, "gave up after the client time-out\n");
            status = 1;
        }
        client->closeConnection();
        delete client;
        std::lock_guard<std::mutex> lock(listener.mutex);
        if (listener.record && !extra.empty()) {
            FILE* out = std::fopen(extra.c_str(), "w");
            if (out) {
                for (long i = 1; i <= n; ++i)
                    if (listener.ends[i] > 0) std::fprintf(out, "%s %.6f\n", listener.ids[i].c_str(), listener.ends[i]);
                std::fclose(out);
            }
        }
        std::printf(
            "RESULT {\"t0\": %.6f, \"got\": %ld, \"unique\": %ld, \"dups\": %ld, \"gaps\": %ld, \"noseq\": %ld, "
            "\"version\": \"%s\"}\n",
            t0, listener.messages, listener.tally.unique, listener.tally.dups, n - listener.tally.unique,
            listener.tally.noSeq, version.c_str());
        return status;
    }

    if (mode == "roundtrip") {
        CountingListener listener(0, false);
        client->listenOnQueue(queue, &listener);
        std::vector<double> lat;
        lat.reserve(n);
        for (long i = 1; i <= n; ++i) {
            const double t = now();
            client->sendToQueue(queue, kBody, nullptr);
            if (!listener.waitMessages(i, deadline)) {
                std::fprintf(stderr, "message %ld did not come back\n", i);
                status = 1;
                break;
            }
            lat.push_back((now() - t) * 1e6);
        }
        usleep(300 * 1000); // lets the last ACK out before the connection goes
        client->closeConnection();
        delete client;
        std::string list;
        for (double v : lat) {
            if (!list.empty()) list += ",";
            char buf[32];
            std::snprintf(buf, sizeof buf, "%.1f", v);
            list += buf;
        }
        std::printf("RESULT {\"lat_us\": [%s], \"version\": \"%s\"}\n", list.c_str(), version.c_str());
        return status;
    }

    if (mode == "idle") {
        IdleListener listener;
        client->listenOnQueue(queue, &listener);
        std::printf("READY\n");
        std::fflush(stdout);
        waitForStdinLine();
        client->closeConnection();
        delete client;
        std::printf("RESULT {\"version\": \"%s\"}\n", version.c_str());
        return 0;
    }

    std::fprintf(stderr, "unknown mode %s\n", mode.c_str());
    delete client;
    return 2;
}
