// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_OUTBOXLIMITS_H
#define TAVREN_INTERNAL_OUTBOXLIMITS_H

#include <tavren/HeaderMap.h>
#include <tavren/OutboxOptions.h>

#include <cstddef>
#include <string>

namespace tavren {
namespace internal {

/** What a message counts against maxBytes: its destination, header names and values, and body. */
std::size_t outboxEntryBytes(const std::string& destination, const HeaderMap& headers, const std::string& body);

/**
 * The bounds of an outbox, the same for memory and file: whether one more
 * message of some size fits, and the words of the OutboxException that
 * refuses it.
 */
class OutboxLimits {
public:
    explicit OutboxLimits(const tavren::OutboxOptions& options);

    /** Throws OutboxException when a message of this size could not be kept even in an empty outbox. */
    void checkAlone(std::size_t messageBytes) const;
    /** Whether one more message of this size fits beside what is kept. */
    bool fits(std::size_t count, std::size_t bytes, std::size_t messageBytes) const;
    /** Throws the OutboxException of a full outbox that refuses the new message. */
    [[noreturn]] void refuse(std::size_t count, std::size_t bytes, std::size_t messageBytes) const;
    bool dropsOldest() const { return dropOldest; }

private:
    std::size_t maxMessages, maxBytes;
    bool dropOldest;
};

} // namespace internal
} // namespace tavren

#endif
