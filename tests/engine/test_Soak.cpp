// SPDX-License-Identifier: Apache-2.0
// Everything at once, at random: messages, sends, listeners coming and going,
// pause and resume, and a broker that drops, resets and refuses connections.
// Whatever happens, nothing may hang or crash, and once the broker behaves
// again the client must be connected, subscribed and receiving.
//
// Runs for TAVREN_SOAK_SECONDS (3 by default), so CI gives it a short run and
// a long one is a matter of setting the variable.

#include "support/EngineFixture.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <random>

namespace {

using tavren::test::EngineTest;
using tavren::test::RecordingListener;

int soakSeconds() {
    const char* text = std::getenv("TAVREN_SOAK_SECONDS");
    const int seconds = text ? std::atoi(text) : 3;
    return seconds > 0 ? seconds : 3;
}

class Soak : public EngineTest {
protected:
    // The watchdog allows the run and a minute to settle.
    Soak() : EngineTest(soakSeconds() + 60) {}
};

TEST_F(Soak, RandomTrafficAndFailuresNeverHangAndEndConnected) {
    connect("1.2", 20);
    RecordingListener a(0), b(1);
    listen("a", &a);
    listen("b", &b);

    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(soakSeconds());
    std::atomic<bool> stop{false};
    // The application: sends, and now and then changes its listeners.
    std::thread application([&] {
        std::mt19937 random(7);
        while (!stop) {
            switch (random() % 10) {
            case 0: client->pauseAllListeners(); break;
            case 1: client->resumeAllListeners(); break;
            case 2: client->stopListeningOnQueue("b"); break;
            case 3: client->listenOnQueue("b", &b); break;
            default: client->sendToQueue("a", "from the application", nullptr); break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 5));
        }
    });
    // The broker: delivers, and now and then fails.
    std::mt19937 random(11);
    while (std::chrono::steady_clock::now() < until) {
        switch (random() % 40) {
        case 0: broker.dropConnection(); break;
        case 1: broker.resetConnection(); break;
        case 2:
            broker.refuseConnections();
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 60));
            broker.acceptConnections();
            break;
        case 3: broker.sendRaw(std::string("RECEIPT\nreceipt-id:stray\n\n\0\n", 27)); break;
        case 4: broker.sendRaw(std::string("ERROR\nmessage:no id\n\n\0\n", 23)); break;
        default: broker.pushMessage(random() % 2 ? "/queue/a" : "/queue/b", "from the broker"); break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 4));
        broker.clearFrames();
    }
    stop = true;
    application.join();

    // Calm again: the client gets back on its feet by itself.
    ASSERT_TRUE(broker.acceptConnections());
    client->resumeAllListeners(); // the last pause may have been the application's final word
    ASSERT_TRUE(broker.waitFor([&] { return client->isConnected(); }, 10000));
    ASSERT_TRUE(broker.waitForSubscription("/queue/a", 10000));
    const int before = a.count();
    ASSERT_TRUE(broker.pushMessage("/queue/a", "after the storm"));
    ASSERT_TRUE(a.waitEntered(before + 1, 10000));
    ASSERT_TRUE(broker.waitForFrames("ACK", 1, 10000));
    std::printf("%d connections, %d messages handed to listeners\n", broker.connectionCount(), a.count() + b.count());
    // The listeners end with this block, the client only with the fixture:
    // closed first, it no longer subscribes them again (a reconnect that
    // lands now would write into a listener being destroyed).
    client->closeConnection();
}

} // namespace
