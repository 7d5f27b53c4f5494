// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_OUTBOX_H
#define TAVREN_INTERNAL_OUTBOX_H

#include "outbox/OutboxStore.h"

#include <tavren/HeaderMap.h>

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tavren {
namespace internal {

class ClientFrame;
class ServerFrame;

/** What the outbox needs of the engine that owns it. */
class OutboxLink {
public:
    virtual ~OutboxLink() = default;
    /**
     * Writes the frames on connection `generation`, if that one still
     * stands. False when it does not (nothing was written) or when the write
     * failed (the engine then drops the connection and makes it again).
     */
    virtual bool writeOn(unsigned generation, ClientFrame* const* frames, std::size_t count) = 0;
    /** Logs line and drops connection `generation`, if it still stands, to make it again. */
    virtual void dropConnection(unsigned generation, const std::string& line) = 0;
    virtual void logInfo(const std::string& line) = 0;
    virtual void logError(const std::string& line) = 0;
};

/**
 * Keeps what the application sends until the broker confirms it. A message
 * accepted by keep() is stored at once; a sender thread of its own writes the
 * stored messages in order on whichever connection stands, each SEND asking
 * for a receipt, at most a window of them unconfirmed at once. A RECEIPT
 * forgets its message; an ERROR answering one forgets it too, logged; a
 * message not confirmed in time costs the connection. A new connection first
 * sends again, in order, everything not confirmed yet.
 */
class Outbox {
public:
    Outbox(std::unique_ptr<OutboxStore> store, OutboxLink* link);
    ~Outbox();
    Outbox(const Outbox&) = delete;
    Outbox& operator=(const Outbox&) = delete;

    /** Starts the sender thread; it writes only while a connection stands. */
    void start();
    /** Ends the sender thread. Idempotent. */
    void stop();

    /** Stores a message (throws tavren::OutboxException when it cannot) and wakes the sender. */
    void keep(const std::string& destination, const char* text, const HeaderMap* headers);

    /** Connection `generation` stands: everything unconfirmed goes out again, in order. */
    void connectionUp(unsigned generation);
    /** The connection is gone: nothing is written until the next one stands. */
    void connectionDown();

    /** True when receiptId names a SEND of this outbox; such a frame is then handled here. */
    static bool ownsReceipt(const std::string& receiptId);
    /** A RECEIPT or ERROR whose receipt-id the outbox owns. Called by the listen thread. */
    void answered(const ServerFrame& frame, const std::string& receiptId);

    std::size_t pending() const;
    /** True once nothing is pending; false when timeoutMs ran out first. */
    bool waitUntilConfirmed(long timeoutMs);
    /** Logs what an outbox that is given up leaves behind (lost in memory, kept in a file). */
    void reportLeftBehind(bool forget);
    /** Logs how many messages an earlier run left in the file, once, if any. */
    void reportInherited();

    /** Bounds of the window, for tests and benchmarks. */
    void setWindow(std::size_t messages, std::size_t bytes);
    void setReceiptTimeoutMs(long ms);

private:
    struct InFlight {
        std::string destination;
        std::string tavrenId;
        std::size_t bytes;
        std::chrono::steady_clock::time_point writtenAt;
    };

    static void* run(void* self);
    void loop();
    /** Writes the next batch on the current connection; false when there was nothing to write. */
    bool sendBatch(std::unique_lock<std::mutex>& lock);
    void forgetConfirmed(std::unique_lock<std::mutex>& lock);
    /** The line to log when the oldest message in flight waited too long for its receipt, else empty. */
    std::string overdue(std::chrono::steady_clock::time_point now) const;
    std::string idOf(std::uint64_t sequence) const;

    std::unique_ptr<OutboxStore> store;
    OutboxLink* link;

    mutable std::mutex mutex;          // guards everything below
    std::condition_variable wake;      // the sender: work, a connection, a receipt, stop
    std::condition_variable confirmed; // waitUntilConfirmed: pending() may have dropped
    bool running;
    bool stopping;
    bool senderIdle; // the sender waits on wake for new work
    pthread_t thread;

    bool connected;
    unsigned generation;     // of the connection that stands, when connected
    unsigned sentGeneration; // the connection inFlight and cursor belong to
    std::uint64_t cursor;    // the highest sequence written on sentGeneration
    std::map<std::uint64_t, InFlight> inFlight;
    std::size_t inFlightBytes;
    std::vector<std::uint64_t> answeredSequences; // confirmed or refused, not yet forgotten by the store
    std::size_t forgetting;                       // of those, how many the store still counts
    bool mayHaveMore;                             // the store may hold messages above cursor
    std::uint64_t kept;                           // messages kept so far, to tell whether one came meanwhile
    bool dropRequested;                           // the connection was given up for an overdue receipt
    std::size_t lastReported;                     // what reportLeftBehind said last

    std::size_t windowMessages;
    std::size_t windowBytes;
    long receiptTimeoutMs;
};

} // namespace internal
} // namespace tavren

#endif
