// SPDX-License-Identifier: Apache-2.0
// The subscription registry: keeps the broker's subscriptions in step with
// the listeners the application registered.

#include "client/StompClientImpl.h"

#include "client/Defaults.h"
#include "client/SubscribeHeaders.h"
#include "frames/SubscribeFrame.h"
#include "frames/UnsubscribeFrame.h"
#include "transport/AprException.h"

#include <sstream>

namespace tavren {
namespace internal {

namespace {

std::string refusal(const char* failed, const std::string& destination, const FrameResult& result) {
    std::ostringstream line;
    line << failed << destination << ". Broker replied: " << result.getShortDescription() << std::endl
         << "More detail: " << result.getDescription();
    return line.str();
}

// The moment a receipt asked for now must have come by.
struct timespec receiptDeadline() {
    return kelvra::threads::CondVar::deadlineIn(kReceiptTimeoutMs);
}

} // namespace

bool StompClientImpl::writeAndAwait(ClientFrame& frame, const std::string& destination, tavren::Listener* registering,
                                    FrameResult& result, kelvra::threads::CondVar& cond,
                                    const struct timespec& deadline) {
    // Called under the lock. A failed write is logged and handled as a lost
    // connection; false tells the caller there is nothing to wait for.
    try {
        long long timeout = kWriteTimeoutUs;
        const apr_status_t rc = connection->write(&frame, &timeout);
        if (rc != 0) throw AprException(rc);
    } catch (AprException& e) {
        std::ostringstream line;
        line << (registering ? "While trying to subscribe to " : "While trying to unsubscribe from ") << destination
             << ". Error " << e.apr_reason() << ": " << e.what();
        logError(line.str());
        // A listener is kept through the outage, before the reconnect below
        // subscribes everything it knows; unless it is there already (a
        // renewal), that is said once.
        if (registering && listeners.insert(std::make_pair(destination, registering)).second) {
            logInfo("The listener on " + destination + " is kept and subscribed as soon as a connection stands.");
        }
        eventDisconnectError();
        return false;
    }

    const std::string receiptId = frame.getReceiptId();
    pendingResults.insert(std::make_pair(receiptId, &result));
    pendingChanges[receiptId] = std::make_pair(destination, registering);
    // Waits only while a listen thread runs that can deliver the answer; a
    // lost connection wakes the waiter (abandonPendingResults). The loop also
    // covers spurious wake-ups, so an answer is never read before it is set.
    const auto answered = [&] { return result.hasResult() || result.isAbandoned() || !listening; };
    bool timedOut = false;
    while (!answered()) {
        if (!mutex->waitUntil(cond, deadline) && !answered()) {
            timedOut = true;
            break;
        }
    }
    // An ERROR came while a subscription awaited its answer: a broker that
    // refuses and closes does so at once, and only the end of the connection
    // tells that apart from an ERROR on a connection that stays open.
    if (!timedOut && registering && (result.isError() || result.sawError())) {
        const struct timespec settle = kelvra::threads::CondVar::deadlineIn(kRefusalSettleMs);
        while (!result.isAbandoned() && listening) {
            if (!mutex->waitUntil(cond, settle)) break;
        }
    }
    if (timedOut) {
        // A broker that does not answer is taken as lost: the reconnect
        // abandons this wait (keeping the listener) and subscribes again.
        logError(std::string("The broker did not answer the ") +
                 (registering ? "subscription to " : "unsubscription from ") + destination + " within " +
                 std::to_string(kReceiptTimeoutMs / 1000) + " s: the connection is taken as lost.");
        eventDisconnectError();
    }
    // The slot lives on the caller's stack: its entry goes before the slot does.
    pendingResults.erase(receiptId);
    pendingChanges.erase(receiptId);
    return true;
}

void StompClientImpl::abandonPendingResults() {
    // Called under the lock when the listen thread is told to stop: no answer
    // can come any more. A listener still waiting to be subscribed joins the
    // others now, so the next connection subscribes it with them; one being
    // unsubscribed leaves now, so the next connection does not subscribe it.
    for (auto& entry : pendingResults) {
        FrameResult* result = entry.second;
        auto change = pendingChanges.find(entry.first);
        if (change != pendingChanges.end()) {
            const std::string& destination = change->second.first;
            tavren::Listener* listener = change->second.second;
            // A subscription refused by the broker that then closed is kept
            // too: it is subscribed again on the next connection.
            if (!listener) {
                listeners.erase(destination);
            } else {
                listeners.insert(std::make_pair(destination, listener));
            }
        }
        result->abandon();
        result->condition()->signal();
    }
}

void StompClientImpl::registerListener(std::string destination, tavren::Listener* listener, const HeaderMap& headers) {
    refuseLibraryHeaders(headers);
    {
        EngineLock lock(*mutex);
        if (headers.empty()) {
            subscribeHeaders.erase(destination);
        } else {
            subscribeHeaders[destination] = headers;
        }
    }
    registerUntil(destination, listener, receiptDeadline());
}

void StompClientImpl::registerUntil(const std::string& destination, tavren::Listener* listener,
                                    const struct timespec& deadline) {
    EngineLock lock(*mutex);
    logInfo("Registering listener on " + destination);
    SubscribeFrame frame(destination, SubscribeFrame::CLIENT_INDIVIDUAL);
    // An application that asked for the pool or for in-order delivery is
    // after speed, and the id travels with every message: RabbitMQ repeats
    // it three times in each MESSAGE (subscription, message-id, ack) and the
    // ACK carries it back, so a UUID costs some 140 bytes a message each way
    // and a tenth of the receive rate (docs/performance.md). A number unique
    // in the process does the id's whole job.
    if (poolThreads > 0 || orderedDelivery) frame.useShortId();
    auto headers = subscribeHeaders.find(destination);
    if (headers != subscribeHeaders.end()) frame.addHeaders(headers->second);
    if (orderedDelivery) {
        // Both brokers' names: each reads its own and ignores the other's.
        const std::string bound = std::to_string(kOrderedPrefetch);
        frame.addHeaders(HeaderMap{{"prefetch-count", bound}, {"activemq.prefetchSize", bound}});
    }
    frame.requestReceipt();
    kelvra::threads::CondVar cond;
    FrameResult result(&cond);
    if (!writeAndAwait(frame, destination, listener, result, cond, deadline)) return;

    if (result.isAbandoned() && result.hasResult() && (result.isError() || result.sawError())) {
        // Refused, then the broker closed: logged with the end of the
        // connection, and the listener is kept for the next one.
        listeners.insert(std::make_pair(destination, listener));
        return;
    }
    if (!result.hasResult()) {
        logError("The broker's answer to the subscription to " + destination +
                 " never came: the connection was lost. The listener is subscribed again"
                 " when a connection stands.");
        listeners.insert(std::make_pair(destination, listener));
        return;
    }
    if (result.isError()) {
        logError(refusal("Failed to subscribe to destination ", destination, result));
        return;
    }
    logInfo("Subscribed to destination " + destination + " successfully.");
    // An answer from a connection that is gone since names a subscription
    // that is gone too: the re-subscription sets the id.
    if (!result.isAbandoned()) listener->subscriptionId = frame.subscriptionId();
    listeners.insert(std::make_pair(destination, listener));
}

void StompClientImpl::deregisterListener(std::string destination) {
    EngineLock lock(*mutex);
    logInfo("Deregistering listener on " + destination);
    // Stopping a queue forgets it for good, also when it is paused.
    pausedListeners.erase(destination);
    subscribeHeaders.erase(destination);
    auto entry = listeners.find(destination);
    if (entry == listeners.end()) {
        // Nothing is subscribed here: there is no subscription id to send.
        logError("No listener is registered on " + destination + "; nothing to unsubscribe.");
        return;
    }

    UnsubscribeFrame frame(entry->second->subscriptionId);
    frame.requestReceipt();
    kelvra::threads::CondVar cond;
    FrameResult result(&cond);
    if (!writeAndAwait(frame, destination, nullptr, result, cond, receiptDeadline())) {
        listeners.erase(destination);
        return;
    }

    if (!result.hasResult()) {
        logError("The broker's answer to the unsubscription from " + destination +
                 " never came: the connection was lost.");
    } else if (result.isError()) {
        logError(refusal("Failed to unsubscribe from destination ", destination, result));
    } else {
        logInfo("Unsubscribed from destination " + destination + " successfully.");
    }
    listeners.erase(destination);
}

void StompClientImpl::pauseAllListeners() {
    EngineLock lock(*mutex);
    logInfo("Pausing all listeners...");
    // A copy: deregistering erases from the map, and other callers may change
    // it while a deregistration waits for its receipt.
    const std::map<std::string, tavren::Listener*> active = listeners;
    for (const auto& entry : active) {
        logInfo("De-registering listener for: " + entry.first);
        // A paused listener keeps its headers for resumeAllListeners.
        auto headers = subscribeHeaders.find(entry.first);
        const HeaderMap kept = headers == subscribeHeaders.end() ? HeaderMap() : headers->second;
        deregisterListener(entry.first);
        pausedListeners.insert(entry);
        if (!kept.empty()) subscribeHeaders[entry.first] = kept;
    }
}

void StompClientImpl::resumeAllListeners() {
    EngineLock lock(*mutex);
    logInfo("Resuming all listeners...");
    std::vector<std::pair<std::string, tavren::Listener*>> known(listeners.begin(), listeners.end());
    known.insert(known.end(), pausedListeners.begin(), pausedListeners.end());
    const unsigned generation = listenGeneration;
    const bool wasConnected = listening;
    // All of them share one wait for their receipts.
    const struct timespec deadline = receiptDeadline();
    for (const auto& entry : known) {
        // A newer connection subscribes everything itself, one lost on the
        // way nothing more (its reconnect does), and a dying engine nothing.
        if (destroying || listenGeneration != generation || (wasConnected && !listening)) break;
        logInfo("Re-registering listener for: " + entry.first);
        registerUntil(entry.first, entry.second, deadline);
    }
    // A paused listener that is active again is no longer paused; otherwise
    // every later reconnect would subscribe it twice.
    for (auto it = pausedListeners.begin(); it != pausedListeners.end();) {
        it = listeners.count(it->first) ? pausedListeners.erase(it) : std::next(it);
    }
}

} // namespace internal
} // namespace tavren
