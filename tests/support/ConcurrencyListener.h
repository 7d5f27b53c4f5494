// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_CONCURRENCYLISTENER_H
#define TAVREN_TEST_CONCURRENCYLISTENER_H

#include <tavren/Listener.h>
#include <tavren/Message.h>

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavren {
namespace test {

/**
 * A listener that records the bodies it is handed in the order its calls
 * began, the most calls of it that ran at once, and the threads they ran
 * on. While gated, each call waits until the test opens the gate; a body
 * "throw" makes the call throw.
 */
class ConcurrencyListener : public tavren::Listener {
public:
    int onMessage(kelvra::SharedPtr<tavren::Message> message) override {
        std::unique_lock<std::mutex> lock(mutex);
        bodies.push_back(message->text());
        threads.insert(pthread_self());
        ++inside;
        if (inside > mostAtOnce) mostAtOnce = inside;
        changed.notify_all();
        changed.wait(lock, [this] { return !gated; });
        --inside;
        ++finished;
        changed.notify_all();
        if (std::string(message->text()) == "throw") throw std::runtime_error("a listener that throws");
        return 0;
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
    /** Waits until n calls have begun. */
    bool waitEntered(size_t n, int timeoutMs = 10000) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return bodies.size() >= n; });
    }
    /** Waits until n calls have returned. */
    bool waitFinished(size_t n, int timeoutMs = 10000) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return finished >= n; });
    }
    std::vector<std::string> received() {
        std::lock_guard<std::mutex> lock(mutex);
        return bodies;
    }
    size_t count() {
        std::lock_guard<std::mutex> lock(mutex);
        return bodies.size();
    }
    int most() {
        std::lock_guard<std::mutex> lock(mutex);
        return mostAtOnce;
    }
    size_t threadsUsed() {
        std::lock_guard<std::mutex> lock(mutex);
        return threads.size();
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> bodies;
    std::set<pthread_t> threads;
    int inside = 0;
    int mostAtOnce = 0;
    size_t finished = 0;
    bool gated = false;
};

} // namespace test
} // namespace tavren

#endif
