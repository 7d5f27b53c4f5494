// SPDX-License-Identifier: Apache-2.0
// Measures what a refusing broker and an outage under a busy sender cost the
// client, against the scripted broker of the tests (tests/support):
//
//   measure_refusals refusal SECONDS   a broker that refuses every SUBSCRIBE
//                                      and closes (reconnect period 1 s):
//                                      connections, log lines, CPU
//   measure_refusals outage            20 s at 200 messages/s with the broker
//                                      gone from 5 s to 15 s: log lines,
//                                      threads started, CPU
//   measure_refusals accepted          the same 20 s with every send accepted
//
// Threads started are counted by wrapping pthread_create.

#include "support/FakeBroker.h"

#include <kelvra/utility/Version.h>
#include <tavren/Listener.h>
#include <tavren/Logger.h>
#include <tavren/StompClient.h>

#include <dlfcn.h>
#include <pthread.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

namespace {

std::atomic<long> threadsStarted{0};

class CountingLogger : public tavren::Logger {
public:
    void logInfo(const std::string& line) override { note(line); }
    void logError(const std::string& line) override { note(line); }
    long lines() const { return count; }
    std::string last(const std::string& prefix) {
        std::lock_guard<std::mutex> lock(mutex);
        return prefix == "refused" ? lastRefusal : lastCount;
    }

private:
    void note(const std::string& line) {
        ++count;
        std::lock_guard<std::mutex> lock(mutex);
        if (line.rfind("The broker refused", 0) == 0) lastRefusal = line;
        if (line.find("sent while disconnected") != std::string::npos) lastCount = line;
    }
    std::atomic<long> count{0};
    std::mutex mutex;
    std::string lastRefusal, lastCount;
};

class Quiet : public tavren::Listener {
public:
    int onMessage(kelvra::SharedPtr<tavren::Message>) override { return 0; }
};

double cpuSeconds() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

int refusal(int seconds) {
    tavren::test::FakeBroker broker;
    broker.setReceiptError("precondition_failed", "inequivalent arg 'x-queue-type' for queue 'qq' in vhost '/'");
    broker.setSubscribeReply(tavren::test::FakeBroker::ReceiptReply::RefuseAndClose);
    CountingLogger log;
    Quiet listener;
    const double cpu0 = cpuSeconds();
    {
        tavren::StompClient client("127.0.0.1", broker.port(), &log, nullptr);
        client.openConnection(1000, kelvra::utility::Version("1.2"));
        client.listenOnQueue("qq", &listener);
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        const double cpu = cpuSeconds() - cpu0;
        const int connections = broker.connectionCount();
        std::printf("refusal: %d s, %d connections, %ld log lines (%.1f per connection), CPU %.3f s (%.3f %% of "
                    "one core)\nlast: %s\n",
                    seconds, connections, log.lines(), static_cast<double>(log.lines()) / connections, cpu,
                    100.0 * cpu / seconds, log.last("refused").c_str());
    }
    return 0;
}

int sender(bool outage) {
    tavren::test::FakeBroker broker;
    CountingLogger log;
    tavren::StompClient client("127.0.0.1", broker.port(), &log, nullptr);
    client.openConnection(1000, kelvra::utility::Version("1.2"));
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    const long linesBefore = log.lines();
    const long threadsBefore = threadsStarted;
    const double cpu0 = cpuSeconds();
    const auto start = std::chrono::steady_clock::now();
    bool gone = false, back = false;
    for (int i = 0; i < 4000; ++i) {
        const auto due = start + std::chrono::milliseconds(5 * i);
        std::this_thread::sleep_until(due);
        const auto at = due - start;
        if (outage && !gone && at >= std::chrono::seconds(5)) {
            broker.refuseConnections();
            broker.dropConnection();
            gone = true;
        }
        if (outage && !back && at >= std::chrono::seconds(15)) {
            if (!broker.acceptConnections()) std::printf("could not listen again\n");
            back = true;
        }
        client.sendToQueue("q", "a message of about fifty bytes, as a device sends", nullptr);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2000));
    const double cpu = cpuSeconds() - cpu0;
    const size_t stored = broker.framesWithCommand("SEND").size();
    std::printf("%s: 4000 sends in 20 s, %zu received by the broker, %ld log lines, %ld threads started, CPU %.3f s\n"
                "last count: %s\n",
                outage ? "outage" : "accepted", stored, log.lines() - linesBefore, threadsStarted - threadsBefore, cpu,
                log.last("count").c_str());
    return 0;
}

} // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* arg) {
    using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static Create real = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
    ++threadsStarted;
    return real(thread, attr, start, arg);
}

int main(int argc, char** argv) {
    const std::string what = argc > 1 ? argv[1] : "";
    if (what == "refusal") return refusal(argc > 2 ? std::atoi(argv[2]) : 120);
    if (what == "outage") return sender(true);
    if (what == "accepted") return sender(false);
    std::fprintf(stderr, "usage: %s refusal [SECONDS] | outage | accepted\n", argv[0]);
    return 2;
}
