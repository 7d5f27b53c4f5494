// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_RECORDINGLISTENER_H
#define TAVREN_TEST_RECORDINGLISTENER_H

#include <tavren/HeaderMap.h>
#include <tavren/Listener.h>
#include <tavren/Message.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace tavren {
namespace test {

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

} // namespace test
} // namespace tavren

#endif
