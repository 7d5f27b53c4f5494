// SPDX-License-Identifier: Apache-2.0
#include "client/LostSends.h"

namespace tavren {
namespace internal {

namespace {

std::string countLine(long long count, const char* tail) {
    return std::to_string(count) + (count == 1 ? " message" : " messages") + " sent while disconnected " +
           (count == 1 ? "was" : "were") + " lost" + tail;
}

} // namespace

bool LostSends::lost() {
    // The outage's first loss is logged as any failed send; its time starts
    // the period after which the count is first logged.
    if (++count == 1) lastLine = std::chrono::steady_clock::now();
    return count == 1;
}

std::string LostSends::dueLine(int periodMs) {
    if (count <= 1 || count == reported) return "";
    const auto now = std::chrono::steady_clock::now();
    if (now - lastLine < std::chrono::milliseconds(periodMs)) return "";
    lastLine = now;
    reported = count;
    return countLine(count, " so far.");
}

std::string LostSends::connected() {
    const std::string line = count > 1 ? countLine(count, ".") : "";
    count = 0;
    reported = 0;
    return line;
}

} // namespace internal
} // namespace tavren
