// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_ENGINEFIXTURE_H
#define TAVREN_TEST_ENGINEFIXTURE_H

#include "support/CapturingLogger.h"
#include "support/FakeBroker.h"
#include "support/RecordingListener.h"
#include "support/Watchdog.h"

#include <kelvra/utility/Version.h>
#include <tavren/StompClient.h>

#include <gtest/gtest.h>

#include <dirent.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace tavren {
namespace test {

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
        reconnectPeriodMs = periodMs;
        client->openConnection(periodMs, kelvra::utility::Version(version));
        ASSERT_TRUE(client->isConnected());
    }

    /**
     * Lets a reconnect period pass: a connection lost within a period of
     * the last attempt to connect is made again on the timer, not at once.
     */
    void letReconnectPeriodPass() {
        std::this_thread::sleep_for(std::chrono::milliseconds(reconnectPeriodMs + reconnectPeriodMs / 10 + 10));
    }

    /**
     * Takes the broker away from a connected client, a reconnect period
     * after it connected: connections are refused, the current one is
     * dropped, and the client's attempt made at once fails.
     */
    void loseTheBroker() {
        letReconnectPeriodPass();
        broker.refuseConnections();
        broker.dropConnection();
        ASSERT_TRUE(log.waitFor("ERROR: Failed to connect on first try, The connection was refused."));
        // The listen thread that noticed the loss made that attempt; it ends after it.
        ASSERT_TRUE(log.waitFor("INFO: Resolving remaining message handlers..."));
        ASSERT_FALSE(client->isConnected());
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
    int reconnectPeriodMs = 100;
};

} // namespace test
} // namespace tavren

#endif
