// SPDX-License-Identifier: Apache-2.0
// Sending until the broker has confirmed every message: libtavren with a
// memory outbox and with a file outbox (Crash, PowerLoss), from 1 and from 4
// threads, beside today's sendToQueue (persistent and not, to the receipt of
// the last message) and a raw-socket floor that writes the same frames
// (persistent:true, a receipt on each) in 64 KiB batches while it reads the
// receipts. One line "RESULT {json}" per run.
//
//   outbox_bench VARIANT HOST PORT VERSION QUEUE N [DIR]
//   outbox_bench rss N SIZE
//
// VARIANT: plain, plain-persistent, memory-1, memory-4, crash-1, crash-4,
// powerloss-1, powerloss-4, floor. DIR holds the outbox files (default
// /var/tmp). "rss" keeps N messages of SIZE bytes in a memory outbox with no
// broker and prints the growth of the resident set.

#include "wire.h"

#include <tavren/tavren.h>

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

const char* kBody =
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789abcdefghijklmnopqrstuvwxyzAB";

// The library's log, watched for the receipt of the last plain send (the
// library logs a receipt nobody waits for).
class WatchingLogger : public tavren::Logger {
public:
    void logInfo(const std::string&) override {}
    void logError(const std::string& message) override {
        if (message.find("receipt-id:last") == std::string::npos) return;
        std::lock_guard<std::mutex> lock(mutex);
        lastConfirmed = true;
        changed.notify_all();
    }
    bool waitLast(double seconds) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return lastConfirmed; });
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool lastConfirmed = false;
};

long long ioWriteBytes() {
    std::ifstream io("/proc/self/io");
    std::string key;
    long long value = 0;
    while (io >> key >> value) {
        if (key == "write_bytes:") return value;
    }
    return -1;
}

long rssKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
    }
    return -1;
}

// Takes everything off the queue again (automatic ACK), so that the broker
// does not pile up the runs' messages; not timed.
void drain(const std::string& host, int port, const std::string& version, const std::string& queue, long n) {
    const int fd = wire::connectTo(host.c_str(), port);
    std::string frames = "CONNECT\naccept-version:" + version + "\nhost:/\nlogin:guest\npasscode:guest\n\n";
    frames.push_back('\0');
    frames += "SUBSCRIBE\nid:0\ndestination:/queue/" + queue + "\nack:auto\n\n";
    frames.push_back('\0');
    if (!wire::writeAll(fd, frames)) wire::die("write SUBSCRIBE");
    wire::Reader reader(fd);
    wire::Frame f;
    long got = 0;
    while (got < n) {
        while (reader.next(&f)) {
            if (f.command == "MESSAGE") ++got;
        }
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 3000) <= 0 || reader.fill() <= 0) break;
    }
    close(fd);
}

void report(const std::string& variant, long n, double seconds, long long writeBytes, bool ok) {
    std::printf("RESULT {\"variant\": \"%s\", \"n\": %ld, \"seconds\": %.6f, \"rate\": %.1f, "
                "\"write_bytes_per_msg\": %.1f, \"ok\": %s}\n",
                variant.c_str(), n, seconds, n / seconds, writeBytes >= 0 ? double(writeBytes) / n : -1.0,
                ok ? "true" : "false");
}

int runClient(const std::string& variant, const std::string& host, int port, const std::string& version,
              const std::string& queue, long n, const std::string& dir) {
    WatchingLogger log;
    tavren::StompClient client(host, port, "guest", "guest", &log, nullptr);
    const bool outbox = variant.rfind("plain", 0) != 0;
    const int threads = variant.size() > 2 && variant.compare(variant.size() - 2, 2, "-4") == 0 ? 4 : 1;
    std::string file;
    if (outbox) {
        tavren::OutboxOptions options;
        options.maxMessages = static_cast<size_t>(n) + 1;
        options.maxBytes = static_cast<size_t>(n) * 1024;
        if (variant.rfind("crash", 0) == 0 || variant.rfind("powerloss", 0) == 0) {
            file = dir + "/tavren-outbox-bench-" + std::to_string(getpid()) + ".db";
            options.file = file;
            options.durability =
                variant.rfind("crash", 0) == 0 ? tavren::OutboxOptions::Crash : tavren::OutboxOptions::PowerLoss;
        }
        client.useOutbox(options);
    }
    client.openConnection(1000, kelvra::utility::Version(version));
    if (!client.isConnected()) {
        std::fprintf(stderr, "cannot connect\n");
        return 1;
    }
    tavren::HeaderMap persistent{{"persistent", "true"}};
    tavren::HeaderMap* headers = variant == "plain-persistent" ? &persistent : nullptr;
    const long long ioBefore = ioWriteBytes();
    const double start = wire::now();
    std::vector<std::thread> senders;
    for (int t = 0; t < threads; ++t) {
        senders.emplace_back([&, t] {
            for (long i = t; i < n - (outbox ? 0 : 1); i += threads) client.sendToQueue(queue, kBody, headers);
        });
    }
    for (std::thread& s : senders) s.join();
    bool ok;
    if (outbox) {
        ok = client.waitForConfirmations(600 * 1000);
    } else {
        tavren::HeaderMap last = headers ? *headers : tavren::HeaderMap();
        last["receipt"] = "last";
        client.sendToQueue(queue, kBody, &last);
        ok = log.waitLast(600);
    }
    const double seconds = wire::now() - start;
    const long long ioAfter = ioWriteBytes();
    report(variant, n, seconds, ioBefore >= 0 && ioAfter >= 0 ? ioAfter - ioBefore : -1, ok);
    client.closeConnection();
    drain(host, port, version, queue, n);
    if (!file.empty()) {
        for (const char* suffix : {"", "-wal", "-shm"}) unlink((file + suffix).c_str());
    }
    return ok ? 0 : 1;
}

// The floor: the same frames as the outbox writes, in 64 KiB batches, while
// a second thread reads the receipts.
int runFloor(const std::string& host, int port, const std::string& version, const std::string& queue, long n) {
    const int fd = wire::connectTo(host.c_str(), port);
    wire::setNoDelay(fd);
    std::string connect = "CONNECT\naccept-version:" + version + "\nhost:/\nlogin:guest\npasscode:guest\n\n";
    connect.push_back('\0');
    if (!wire::writeAll(fd, connect)) wire::die("write CONNECT");
    wire::Reader reader(fd);
    wire::Frame frame;
    while (!reader.next(&frame)) {
        if (reader.fill() <= 0) wire::die("no CONNECTED");
    }
    std::atomic<long> confirmed{0};
    const double start = wire::now();
    std::thread receipts([&] {
        wire::Frame f;
        while (confirmed < n) {
            while (!reader.next(&f)) {
                if (reader.fill() <= 0) return;
            }
            if (f.command == "RECEIPT") ++confirmed;
        }
    });
    std::string batch;
    for (long i = 1; i <= n; ++i) {
        batch += "SEND\ndestination:/queue/" + queue +
                 "\ncontent-type:text/plain\ncontent-length:100\npersistent:true\nreceipt:r" + std::to_string(i) +
                 "\n\n";
        batch += kBody;
        batch.push_back('\0');
        if (batch.size() >= 65536 || i == n) {
            if (!wire::writeAll(fd, batch)) wire::die("write SEND");
            batch.clear();
        }
    }
    receipts.join();
    const double seconds = wire::now() - start;
    report("floor", n, seconds, -1, confirmed == n);
    close(fd);
    drain(host, port, version, queue, n);
    return confirmed == n ? 0 : 1;
}

int runRss(long n, size_t size) {
    WatchingLogger log;
    // No broker: port 1 refuses at once, so every message stays kept.
    tavren::StompClient client("127.0.0.1", 1, &log, nullptr);
    tavren::OutboxOptions options;
    options.maxMessages = static_cast<size_t>(n);
    options.maxBytes = static_cast<size_t>(n) * (size + 256);
    client.useOutbox(options);
    client.openConnection(60000, kelvra::utility::Version("1.2"));
    const std::string text(size, 'x');
    const long before = rssKiB();
    for (long i = 0; i < n; ++i) client.sendToQueue("rss", text.c_str(), nullptr);
    const long after = rssKiB();
    std::printf("RESULT {\"variant\": \"rss\", \"n\": %ld, \"size\": %zu, \"pending\": %zu, \"rss_growth_kib\": %ld}\n",
                n, size, client.pendingMessages(), after - before);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc >= 4 && std::string(argv[1]) == "rss") return runRss(std::atol(argv[2]), std::atol(argv[3]));
    if (argc < 7) {
        std::fprintf(stderr, "usage: %s VARIANT HOST PORT VERSION QUEUE N [DIR]\n       %s rss N SIZE\n", argv[0],
                     argv[0]);
        return 2;
    }
    const std::string variant = argv[1];
    const std::string host = argv[2];
    const int port = std::atoi(argv[3]);
    const std::string version = argv[4];
    const std::string queue = argv[5];
    const long n = std::atol(argv[6]);
    const std::string dir = argc > 7 ? argv[7] : "/var/tmp";
    if (variant == "floor") return runFloor(host, port, version, queue, n);
    return runClient(variant, host, port, version, queue, n, dir);
}
