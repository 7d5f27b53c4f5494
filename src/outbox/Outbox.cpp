// SPDX-License-Identifier: Apache-2.0
#include "outbox/Outbox.h"

#include "client/Defaults.h"
#include "frames/SendFrame.h"
#include "frames/ServerFrame.h"

#include <tavren/OutboxException.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace tavren {
namespace internal {

namespace {

// The receipt of an outbox's SEND: this prefix and the message's sequence.
// Subscriptions ask for receipts named after their command and a UUID, so
// the two never meet.
const char kReceiptPrefix[] = "outbox/";
const size_t kReceiptPrefixLength = sizeof kReceiptPrefix - 1;

// How long the sender sleeps when nothing is due; a receipt, a message or a
// connection wakes it at once. While messages are in flight it wakes more
// often, to notice one whose receipt is overdue.
const long kIdleWaitMs = 1000;
const long kInFlightWaitMs = 100;

std::size_t sizeOf(const OutboxEntry& entry) {
    std::size_t bytes = entry.destination.size() + entry.body.size();
    for (const auto& header : entry.headers) bytes += header.first.size() + header.second.size();
    return bytes;
}

std::string headerOrEmpty(const ServerFrame& frame, const char* name) {
    auto it = frame.headers().find(name);
    return it == frame.headers().end() ? std::string() : it->second;
}

} // namespace

Outbox::Outbox(std::unique_ptr<OutboxStore> s, OutboxLink* l)
    : store(std::move(s)),
      link(l),
      running(false),
      stopping(false),
      senderIdle(false),
      thread(),
      connected(false),
      generation(0),
      sentGeneration(0),
      cursor(0),
      inFlightBytes(0),
      forgetting(0),
      mayHaveMore(true),
      kept(0),
      dropRequested(false),
      lastReported(0),
      windowMessages(kOutboxWindowMessages),
      windowBytes(kOutboxWindowBytes),
      receiptTimeoutMs(kOutboxReceiptTimeoutMs) {}

Outbox::~Outbox() { stop(); }

void Outbox::start() {
    std::lock_guard<std::mutex> lock(mutex);
    if (running) return;
    stopping = false;
    const int rc = pthread_create(&thread, nullptr, &Outbox::run, this);
    if (rc != 0) throw OutboxException(std::string("The outbox could not start its sender: ") + strerror(rc));
    running = true;
}

void Outbox::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!running) return;
        stopping = true;
        wake.notify_all();
    }
    pthread_join(thread, nullptr);
    std::lock_guard<std::mutex> lock(mutex);
    running = false;
}

void* Outbox::run(void* self) {
    static_cast<Outbox*>(self)->loop();
    return nullptr;
}

void Outbox::keep(const std::string& destination, const char* text, const HeaderMap* headers) {
    static const HeaderMap none;
    std::vector<DroppedEntry> dropped;
    store->add(destination, headers ? *headers : none, text ? text : "", &dropped);
    for (const DroppedEntry& entry : dropped) {
        link->logError("The outbox is full: its oldest message " + idOf(entry.sequence) + " to " + entry.destination +
                       " was dropped.");
    }
    std::lock_guard<std::mutex> lock(mutex);
    ++kept;
    mayHaveMore = true;
    if (senderIdle) wake.notify_one();
}

void Outbox::connectionUp(unsigned g) {
    std::lock_guard<std::mutex> lock(mutex);
    connected = true;
    generation = g;
    wake.notify_one();
}

void Outbox::connectionDown() {
    std::lock_guard<std::mutex> lock(mutex);
    connected = false;
}

bool Outbox::ownsReceipt(const std::string& receiptId) {
    return receiptId.compare(0, kReceiptPrefixLength, kReceiptPrefix) == 0;
}

void Outbox::answered(const ServerFrame& frame, const std::string& receiptId) {
    errno = 0;
    char* end = nullptr;
    const unsigned long long sequence = std::strtoull(receiptId.c_str() + kReceiptPrefixLength, &end, 10);
    const bool valid = end && *end == '\0' && errno == 0 && end != receiptId.c_str() + kReceiptPrefixLength;
    const bool refused = frame.command() == "ERROR";
    std::lock_guard<std::mutex> lock(mutex);
    if (!valid) {
        link->logError("The broker answered a message the outbox did not send (receipt " + receiptId + ").");
        return;
    }
    auto message = inFlight.find(sequence);
    if (refused) {
        // Never sent again: a message the broker refuses once, it refuses
        // every time.
        const std::string destination = message != inFlight.end() ? message->second.destination : "?";
        link->logError("The broker refused the message " + idOf(sequence) + " to " + destination + ": " +
                       headerOrEmpty(frame, "message") + ". It is not sent again.");
    }
    if (message != inFlight.end()) {
        inFlightBytes -= message->second.bytes;
        inFlight.erase(message);
    }
    answeredSequences.push_back(sequence);
    ++forgetting;
    wake.notify_one();
}

std::size_t Outbox::pending() const {
    std::lock_guard<std::mutex> lock(mutex);
    const std::size_t count = store->count();
    return count > forgetting ? count - forgetting : 0;
}

bool Outbox::waitUntilConfirmed(long timeoutMs) {
    std::unique_lock<std::mutex> lock(mutex);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(0L, timeoutMs));
    const auto none = [this] { return store->count() <= forgetting; };
    return confirmed.wait_until(lock, deadline, none);
}

void Outbox::reportLeftBehind(bool forget) {
    std::lock_guard<std::mutex> lock(mutex);
    const std::size_t count = store->count();
    const std::size_t left = count > forgetting ? count - forgetting : 0;
    if (left == 0 || left == lastReported) return;
    lastReported = left;
    if (store->durable()) {
        link->logInfo(std::to_string(left) + " unconfirmed messages stay in the outbox file for the next run.");
        return;
    }
    link->logError(std::to_string(left) +
                   " messages in the memory outbox were never confirmed by the broker and are lost.");
    if (!forget) return;
    std::vector<OutboxEntry> all;
    store->readAfter(0, count, &all);
    std::vector<std::uint64_t> sequences;
    for (const OutboxEntry& entry : all) sequences.push_back(entry.sequence);
    store->remove(sequences);
    answeredSequences.clear();
    forgetting = 0;
    inFlight.clear();
    inFlightBytes = 0;
    lastReported = 0;
    confirmed.notify_all();
}

void Outbox::reportInherited() {
    std::lock_guard<std::mutex> lock(mutex);
    const std::size_t count = store->count();
    if (count == 0 || !store->durable()) return;
    link->logInfo("The outbox holds " + std::to_string(count) + " messages from an earlier run: they are sent first.");
}

void Outbox::setWindow(std::size_t messages, std::size_t bytes) {
    std::lock_guard<std::mutex> lock(mutex);
    windowMessages = std::max<std::size_t>(1, messages);
    windowBytes = std::max<std::size_t>(1, bytes);
}

void Outbox::setReceiptTimeoutMs(long ms) {
    std::lock_guard<std::mutex> lock(mutex);
    receiptTimeoutMs = ms;
}

std::string Outbox::idOf(std::uint64_t sequence) const { return store->idPrefix() + "-" + std::to_string(sequence); }

void Outbox::loop() {
    std::unique_lock<std::mutex> lock(mutex);
    while (!stopping) {
        forgetConfirmed(lock);
        if (connected && generation != sentGeneration) {
            // A new connection: whatever was written on the last one and not
            // confirmed goes out again first, in order.
            sentGeneration = generation;
            inFlight.clear();
            inFlightBytes = 0;
            cursor = 0;
            mayHaveMore = true;
            dropRequested = false;
        }
        if (connected && !dropRequested && !inFlight.empty()) {
            const std::string line = overdue(std::chrono::steady_clock::now());
            if (!line.empty()) {
                dropRequested = true;
                const unsigned lost = generation;
                lock.unlock();
                link->dropConnection(lost, line);
                lock.lock();
                continue;
            }
        }
        const bool room = inFlight.size() < windowMessages && inFlightBytes < windowBytes;
        if (connected && !dropRequested && mayHaveMore && room && sendBatch(lock)) continue;
        senderIdle = true;
        wake.wait_for(lock, std::chrono::milliseconds(inFlight.empty() ? kIdleWaitMs : kInFlightWaitMs));
        senderIdle = false;
    }
}

void Outbox::forgetConfirmed(std::unique_lock<std::mutex>&) {
    // Under the outbox's lock, so that pending() never counts a message
    // twice or not at all while the store forgets.
    if (answeredSequences.empty()) return;
    try {
        store->remove(answeredSequences);
    } catch (std::exception& e) {
        // The messages are confirmed all the same; a store that could not
        // forget them sends them once more after a restart.
        link->logError(std::string("The outbox could not forget confirmed messages: ") + e.what());
    }
    forgetting -= std::min(forgetting, answeredSequences.size());
    answeredSequences.clear();
    confirmed.notify_all();
}

bool Outbox::sendBatch(std::unique_lock<std::mutex>& lock) {
    const std::size_t room = std::min(windowMessages - inFlight.size(), kOutboxBatchMessages);
    const std::uint64_t after = cursor;
    const unsigned on = sentGeneration;
    const std::uint64_t keptBefore = kept;
    lock.unlock();
    std::vector<OutboxEntry> entries;
    try {
        store->readAfter(after, room, &entries);
    } catch (std::exception& e) {
        link->logError(std::string("The outbox could not read its messages: ") + e.what());
    }
    lock.lock();
    if (entries.empty()) {
        // Nothing more for now, unless a message came meanwhile.
        if (kept == keptBefore) mayHaveMore = false;
        return false;
    }
    if (sentGeneration != on || !connected) return true; // the connection changed: start again

    // In flight from here: a receipt may come as soon as the bytes are out.
    const auto now = std::chrono::steady_clock::now();
    std::vector<SendFrame> frames(entries.size());
    std::vector<ClientFrame*> pointers;
    pointers.reserve(entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        OutboxEntry& entry = entries[i];
        SendFrame& frame = frames[i];
        const std::string id = idOf(entry.sequence);
        frame.setText(const_cast<char*>(entry.body.c_str()));
        frame.setDestination(entry.destination);
        frame.setHeader("receipt", kReceiptPrefix + std::to_string(entry.sequence));
        frame.setHeader("tavren-id", id);
        frame.setAdditionalHeaders(&entry.headers);
        if (entry.headers.find("persistent") == entry.headers.end()) frame.setHeader("persistent", "true");
        pointers.push_back(&frame);
        const std::size_t bytes = sizeOf(entry);
        inFlight[entry.sequence] = InFlight{entry.destination, id, bytes, now};
        inFlightBytes += bytes;
    }
    cursor = entries.back().sequence;
    lock.unlock();
    const bool written = link->writeOn(on, pointers.data(), pointers.size());
    lock.lock();
    // A failed write costs the connection; the next one sends these again.
    // Should the connection still look as it was, a short pause keeps this
    // thread from spinning until the engine has dropped it.
    if (!written && connected && sentGeneration == on) {
        wake.wait_for(lock, std::chrono::milliseconds(10));
    }
    return true;
}

std::string Outbox::overdue(std::chrono::steady_clock::time_point now) const {
    const InFlight& oldest = inFlight.begin()->second;
    const long waited =
        static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(now - oldest.writtenAt).count());
    if (waited < receiptTimeoutMs) return "";
    return "The broker did not confirm the message " + oldest.tavrenId + " to " + oldest.destination + " within " +
           std::to_string(receiptTimeoutMs) + " ms: the connection is taken as lost.";
}

} // namespace internal
} // namespace tavren
