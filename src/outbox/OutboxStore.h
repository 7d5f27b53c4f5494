// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_OUTBOXSTORE_H
#define TAVREN_INTERNAL_OUTBOXSTORE_H

#include <tavren/HeaderMap.h>
#include <tavren/OutboxOptions.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tavren {
namespace internal {

/** One message kept in an outbox. */
struct OutboxEntry {
    std::uint64_t sequence; // the order of acceptance: increasing, never reused by one outbox
    std::string destination;
    HeaderMap headers; // the application's extra headers, as given
    std::string body;
};

/** A message a full DropOldest outbox let go of to make room. */
struct DroppedEntry {
    std::uint64_t sequence;
    std::string destination;
};

/**
 * Where a client keeps the messages it sent until the broker confirms them:
 * in memory, or in a file that survives a crash or a power loss. Every
 * operation may be called from any thread; adds from several threads at once
 * share their commits.
 */
class OutboxStore {
public:
    virtual ~OutboxStore() = default;

    /**
     * Keeps a message and returns its sequence once it is kept as the
     * durability asks. Throws tavren::OutboxException when it cannot be kept
     * (the outbox is full and refuses new messages, or the storage failed);
     * nothing kept before is harmed. A full DropOldest outbox drops the
     * oldest messages instead and appends them to *dropped.
     */
    virtual std::uint64_t add(const std::string& destination, const HeaderMap& headers, const std::string& body,
                              std::vector<DroppedEntry>* dropped) = 0;

    /** Appends to *out, in order, up to maxCount kept messages whose sequence is above after, bodies included. */
    virtual void readAfter(std::uint64_t after, std::size_t maxCount, std::vector<OutboxEntry>* out) = 0;

    /** Forgets messages (confirmed or refused); sequences not kept are ignored. Need not reach the disk at once. */
    virtual void remove(const std::vector<std::uint64_t>& sequences) = 0;

    /** Messages kept, and their bytes (bodies and headers). */
    virtual std::size_t count() const = 0;
    virtual std::size_t bytes() const = 0;

    /**
     * A text unique to this outbox (kept in its file): the "tavren-id" of a
     * message is this, a '-' and its sequence, the same on every resend.
     */
    virtual const std::string& idPrefix() const = 0;

    /** Whether the messages outlive the process (a file outbox). */
    virtual bool durable() const = 0;
};

/** An outbox in memory, bounded as the options say (their file is ignored). */
std::unique_ptr<OutboxStore> makeMemoryOutbox(const tavren::OutboxOptions& options);

/**
 * The outbox in options.file, made when missing. A file that is not an outbox
 * of this library (garbage, a foreign or newer format, a truncated file) is
 * moved aside with a time-stamped suffix, which logError says, and a new one
 * is started. Throws tavren::OutboxException when the file is used by another
 * client or cannot be made at all. Built only with TAVREN_FILE_OUTBOX.
 */
std::unique_ptr<OutboxStore> openFileOutbox(const tavren::OutboxOptions& options,
                                            const std::function<void(const std::string&)>& logError);

} // namespace internal
} // namespace tavren

#endif
