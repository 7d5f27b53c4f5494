#ifndef TAVREN_TEST_ENGINEFIXTURE_H
#define TAVREN_TEST_ENGINEFIXTURE_H

#include "support/CapturingLogger.h"
#include "support/FakeBroker.h"

#include <kelvra/utility/Version.h>
#include <tavren/Listener.h>
#include <tavren/StompClient.h>

#include <gtest/gtest.h>

#include <dirent.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tavren {
namespace test {

/**
 * Ends the process if a test runs longer than its limit, so that a deadlock
 * fails with a message instead of hanging.
 */
class Watchdog {
public:
    explicit Watchdog(int seconds) : done(false) {
        thread = std::thread([this, seconds] {
            std::unique_lock<std::mutex> lock(mutex);
            if (!cond.wait_for(lock, std::chrono::seconds(seconds), [this] { return done; })) {
                const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
                std::fprintf(stderr, "watchdog: %s.%s still runs after %d s: deadlock?\n",
                             info ? info->test_suite_name() : "?", info ? info->name() : "?", seconds);
                std::abort();
            }
        });
    }
    ~Watchdog() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            done = true;
        }
        cond.notify_all();
        thread.join();
    }

private:
    std::mutex mutex;
    std::condition_variable cond;
    bool done;
    std::thread thread;
};

/** A message as a listener saw it. */
struct Received {
    std::string text;
    HeaderMap headers;
};

/**
 * A listener that records what it is handed and answers with a fixed value.
 * When gated, each call waits until the test opens the gate.
 */
class RecordingListener : public tavren::Listener {
public:
    explicit RecordingListener(int answer = 0) : answer(answer) {}

    int onMessage(kelvra::SharedPtr<tavren::Message> message) override {
        std::unique_lock<std::mutex> lock(mutex);
        messages.push_back(Received{message->text(), message->headers()});
        ++entered;
        changed.notify_all();
        changed.wait(lock, [this] { return !gated; });
        ++finished;
        changed.notify_all();
        return answer;
    }

    void closeGate() {
        std::lock_guard<std::mutex> lock(mutex);
        gated = true;
    }
    void openGate() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            gated = false;
        }
        changed.notify_all();
    }
    bool waitEntered(int n, int timeoutMs = 5000) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return entered >= n; });
    }
    bool waitFinished(int n, int timeoutMs = 5000) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return finished >= n; });
    }
    std::vector<Received> received() {
        std::lock_guard<std::mutex> lock(mutex);
        return messages;
    }
    int count() {
        std::lock_guard<std::mutex> lock(mutex);
        return entered;
    }

private:
    const int answer;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Received> messages;
    int entered = 0;
    int finished = 0;
    bool gated = false;
};

/** How many threads the process runs now. */
inline int threadCount() {
    int n = 0;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') ++n;
        }
        closedir(dir);
    }
    return n;
}

/**
 * A fake broker, a capturing logger and a client of that broker, with a
 * watchdog over the whole test.
 */
class EngineTest : public ::testing::Test {
protected:
    explicit EngineTest(int watchdogSeconds = 90) : watchdog(watchdogSeconds) {}

    void TearDown() override { client.reset(); }

    tavren::StompClient& makeClient(std::pair<std::string, std::string>* heartbeat = nullptr) {
        client.reset(new tavren::StompClient("127.0.0.1", broker.port(), &log, heartbeat));
        return *client;
    }

    /** Makes a client if there is none, opens the connection and expects it to stand. */
    void connect(const char* version = "1.2", int periodMs = 100) {
        if (!client) makeClient();
        client->openConnection(periodMs, kelvra::utility::Version(version));
        ASSERT_TRUE(client->isConnected());
    }

    /** Registers listener on queue and waits until the broker holds the subscription. */
    void listen(const std::string& queue, tavren::Listener* listener) {
        client->listenOnQueue(queue, listener);
        ASSERT_TRUE(broker.waitForSubscription("/queue/" + queue));
    }

    /** The recorded frames with command, all connections. */
    std::vector<RecordedFrame> sent(const std::string& command) { return broker.framesWithCommand(command); }

    Watchdog watchdog; // first member: it outlives everything the test does
    FakeBroker broker;
    CapturingLogger log;
    std::unique_ptr<tavren::StompClient> client;
};

} // namespace test
} // namespace tavren

#endif
