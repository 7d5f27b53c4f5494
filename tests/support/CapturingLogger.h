// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_CAPTURINGLOGGER_H
#define TAVREN_TEST_CAPTURINGLOGGER_H

#include <tavren/Logger.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace tavren {
namespace test {

/**
 * A logger that keeps every line, as "INFO: text" or "ERROR: text" (no
 * time stamp), so tests can assert the exact lines and their order.
 */
class CapturingLogger : public tavren::Logger {
public:
    void logInfo(const std::string& message) override { add("INFO: " + message); }
    void logError(const std::string& message) override { add("ERROR: " + message); }

    std::vector<std::string> lines() const {
        std::lock_guard<std::mutex> lock(mutex);
        return captured;
    }

    /** How many lines equal line exactly. */
    size_t count(const std::string& line) const {
        std::lock_guard<std::mutex> lock(mutex);
        return std::count(captured.begin(), captured.end(), line);
    }

    /** How many lines start with prefix. */
    size_t countStartingWith(const std::string& prefix) const {
        std::lock_guard<std::mutex> lock(mutex);
        return std::count_if(captured.begin(), captured.end(),
                             [&](const std::string& l) { return l.compare(0, prefix.size(), prefix) == 0; });
    }

    bool contains(const std::string& line) const { return count(line) > 0; }

    /** Waits until at least n lines equal line; false on time-out. */
    bool waitFor(const std::string& line, size_t n = 1, int timeoutMs = 5000) const {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
            return static_cast<size_t>(std::count(captured.begin(), captured.end(), line)) >= n;
        });
    }

    /** Waits until a line starts with prefix; false on time-out. */
    bool waitForPrefix(const std::string& prefix, size_t n = 1, int timeoutMs = 5000) const {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
            return static_cast<size_t>(std::count_if(captured.begin(), captured.end(), [&](const std::string& l) {
                       return l.compare(0, prefix.size(), prefix) == 0;
                   })) >= n;
        });
    }

    /** The lines from the first one equal to from (inclusive) on; empty if none. */
    std::vector<std::string> linesFrom(const std::string& from) const {
        std::lock_guard<std::mutex> lock(mutex);
        auto it = std::find(captured.begin(), captured.end(), from);
        return std::vector<std::string>(it, captured.end());
    }

    void clear() {
        std::lock_guard<std::mutex> lock(mutex);
        captured.clear();
    }

private:
    void add(const std::string& line) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            captured.push_back(line);
        }
        changed.notify_all();
    }

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<std::string> captured;
};

} // namespace test
} // namespace tavren

#endif
