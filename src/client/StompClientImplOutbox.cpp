// SPDX-License-Identifier: Apache-2.0
// The engine's side of the outbox: it is switched on, writes through the
// engine on the connection that stands, and is waited for.

#include "client/StompClientImpl.h"

#include "client/EngineOutboxLink.h"

#include "client/Defaults.h"

#include <stdexcept>

namespace tavren {
namespace internal {

bool EngineOutboxLink::writeOn(unsigned generation, ClientFrame* const* frames, std::size_t count) {
    EngineLock lock(*engine->mutex);
    if (!stands(generation)) return false;
    long long timeout = kWriteTimeoutUs;
    if (engine->connection->writeFrames(frames, count, &timeout) == 0) return true;
    engine->eventDisconnectError();
    return false;
}

void EngineOutboxLink::dropConnection(unsigned generation, const std::string& line) {
    EngineLock lock(*engine->mutex);
    if (!stands(generation)) return;
    engine->logError(line);
    engine->eventDisconnectError();
}

void EngineOutboxLink::logInfo(const std::string& line) { engine->logInfo(line); }

void EngineOutboxLink::logError(const std::string& line) { engine->logError(line); }

bool EngineOutboxLink::stands(unsigned generation) const {
    return engine->session && engine->listening && engine->listenGeneration == generation;
}

void StompClientImpl::useOutbox(const tavren::OutboxOptions& options) {
    requireNotOpened("useOutbox");
    if (!outboxBridge) outboxBridge.reset(new EngineOutboxLink(this));
    // The file of an earlier outbox is let go first, so that the same file
    // may be named again.
    outbox.reset();
    std::unique_ptr<OutboxStore> store;
    if (options.file.empty()) {
        store = makeMemoryOutbox(options);
    } else {
        store = openFileOutbox(options, [this](const std::string& line) { logError(line); });
    }
    outbox.reset(new Outbox(std::move(store), outboxBridge.get()));
}

std::size_t StompClientImpl::pendingMessages() const { return outbox ? outbox->pending() : 0; }

bool StompClientImpl::waitForConfirmations(long timeoutMs) {
    return outbox ? outbox->waitUntilConfirmed(timeoutMs) : true;
}

} // namespace internal
} // namespace tavren
