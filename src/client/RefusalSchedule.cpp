// SPDX-License-Identifier: Apache-2.0
#include "client/RefusalSchedule.h"

#include "client/Defaults.h"

#include <algorithm>

namespace tavren {
namespace internal {

namespace {

// The longest line of the broker's body that goes into the log.
const size_t kReasonLineMax = 200;

} // namespace

void RefusalSchedule::connected() {
    connectedAt = std::chrono::steady_clock::now();
    carried = false;
}

void RefusalSchedule::ended(bool refused, bool byApplication, int periodMs) {
    const long long stoodMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - connectedAt).count();
    // A refusal never starts the count again, however long the connection
    // took to be refused (a slow link, a busy device).
    if (stoodMs >= periodMs && !refused) inARow = 0;
    if (byApplication) return;
    if (refused || (stoodMs < periodMs && !carried)) ++inARow;
}

long long RefusalSchedule::waitMs(int periodMs) const {
    const long long period = std::max(1, periodMs);
    const long long cap = std::max(period, static_cast<long long>(kRefusalBackoffCapMs));
    long long wait = period;
    for (int i = 1; i < inARow && wait < cap; ++i) wait *= 2;
    return std::min(wait, cap);
}

bool BrokerRefusal::closedTheConnection() const {
    return any() && std::chrono::steady_clock::now() - at <= std::chrono::milliseconds(kRefusalCloseMs);
}

void BrokerRefusal::note(const ServerFrame& frame, const std::string& about) {
    seen = true;
    at = std::chrono::steady_clock::now();
    subject = about;
    auto message = frame.headers().find("message");
    reason = message == frame.headers().end() ? std::string() : message->second;
    std::string line = frame.body() ? frame.body() : "";
    line = line.substr(0, line.find('\n'));
    if (line.size() > kReasonLineMax) line = line.substr(0, kReasonLineMax) + "...";
    if (!line.empty() && line != reason) reason += (reason.empty() ? "" : ": ") + line;
}

std::string KeptErrors::noted(const std::string& reason) {
    ++count;
    const auto now = std::chrono::steady_clock::now();
    if (count < 2 || (logged && now - lastLine < std::chrono::milliseconds(kKeptErrorLineMs))) return std::string();
    const long long since = count - countLogged;
    std::string line = "The broker answered " + std::to_string(since) + (since == 1 ? " frame" : " frames") +
                       " with an error and keeps the connection open (" + std::to_string(count) +
                       " on this connection), the last: " + (reason.empty() ? "no reason given" : reason);
    logged = true;
    lastLine = now;
    countLogged = count;
    return line;
}

} // namespace internal
} // namespace tavren
