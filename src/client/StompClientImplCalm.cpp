// SPDX-License-Identifier: Apache-2.0
// Refusals and outages: how long the engine waits after the broker refused
// a connection or dropped it at once, what of the broker's reason it logs,
// and how the sends lost while no connection stands are counted instead of
// each being logged and answered with a connection attempt.

#include "client/StompClientImpl.h"

#include "client/Defaults.h"

#include <algorithm>

namespace tavren {
namespace internal {

void StompClientImpl::sendLost() {
    // Under the lock. While an outage's attempts are scheduled, a lost send
    // only counts: no line, no attempt, no thread, and the schedule (with
    // its jitter) stays what it would be without the application sending.
    if (!lostSends.lost() && connector && !hasSession) {
        logLostSendsIfDue();
        return;
    }
    eventDisconnectError();
}

void StompClientImpl::logLostSendsIfDue() {
    const std::string line = lostSends.dueLine(std::max(1, reconnectPeriod));
    if (!line.empty()) logError(line);
}

void StompClientImpl::noteBrokerError(const ServerFrame& frame, const std::string& receiptId) {
    // On the listen thread, under the lock. Which frame the ERROR answered:
    // the one whose receipt it names, else a subscription awaiting its own.
    std::string about;
    auto named = pendingChanges.find(receiptId);
    for (auto it = pendingChanges.begin(); named == pendingChanges.end() && it != pendingChanges.end(); ++it) {
        if (it->second.second) named = it;
    }
    if (named != pendingChanges.end()) {
        about = (named->second.second ? "the subscription to " : "the unsubscription from ") + named->second.first;
    }
    brokerError.note(frame, about);
    for (auto& change : pendingChanges) {
        auto slot = pendingResults.find(change.first);
        if (change.second.second && slot != pendingResults.end()) slot->second->noteError();
    }
}

void StompClientImpl::noteKeptError() {
    const std::string line = keptErrors.noted(brokerError.reason);
    if (!line.empty()) logError(line);
}

void StompClientImpl::connectionEnded(bool byApplication, bool refused) {
    // Under the lock, once the connection that stood is gone. The refusal is
    // logged with the wait that follows it (connectAgain), or alone.
    calm.ended(refused, byApplication, std::max(1, reconnectPeriod));
    if (refused && !byApplication) {
        const std::string reason = brokerError.reason.empty() ? "" : " (" + brokerError.reason + ")";
        const bool subscription = brokerError.subject.rfind("the subscription", 0) == 0;
        refusalLine = "The broker refused " + (brokerError.subject.empty() ? "a frame" : brokerError.subject) + reason +
                      " and closed the connection" +
                      (subscription ? ": the listener is kept and subscribed again on the next connection." : ".");
    }
    brokerError.clear();
}

void StompClientImpl::logRefusal(long long waitMs) {
    if (refusalLine.empty()) return;
    logError(waitMs < 0 ? refusalLine : refusalLine + " The next attempt in " + std::to_string(waitMs) + " ms.");
    refusalLine.clear();
}

long long StompClientImpl::waitAfterLossMs(long long since) {
    // Under the lock (the jitter source is shared). One refused or
    // short-lived connection waits out the period from the last attempt, as
    // any connection lost within it; each further one doubles the wait.
    const int period = std::max(1, reconnectPeriod);
    const long long jitterOfPeriod = retryDelayMs() - period;
    if (calm.count() == 0) return std::max(0LL, period - since) + jitterOfPeriod;
    if (calm.count() == 1) return (since < period ? period - since : period) + jitterOfPeriod;
    const long long wait = calm.waitMs(period);
    const long long spread = wait * kReconnectJitterPercent / 100;
    return wait + std::uniform_int_distribution<long long>(0, spread)(jitter);
}

int StompClientImpl::waitAfterFailedAttemptMs(const tavren::ConnectionException& e) {
    // Under the lock. A broker that answered CONNECT with an ERROR refused:
    // its reason is logged with the wait, which grows as after any refusal.
    if (e.errorType() != tavren::ConnectionException::BrokerError) return retryDelayMs();
    calm.refusedAtConnect();
    const int period = std::max(1, reconnectPeriod);
    const long long wait = calm.waitMs(period);
    const long long delay =
        wait + std::uniform_int_distribution<long long>(0, wait * kReconnectJitterPercent / 100)(jitter);
    logError("The broker refused the connection" + (brokerError.reason.empty() ? "" : " (" + brokerError.reason + ")") +
             ": the next attempt in " + std::to_string(delay) + " ms.");
    brokerError.clear();
    return static_cast<int>(delay);
}

} // namespace internal
} // namespace tavren
