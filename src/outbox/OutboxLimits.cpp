// SPDX-License-Identifier: Apache-2.0
#include "outbox/OutboxLimits.h"

#include <tavren/OutboxException.h>

namespace tavren {
namespace internal {

std::size_t outboxEntryBytes(const std::string& destination, const HeaderMap& headers, const std::string& body) {
    std::size_t n = destination.size() + body.size();
    for (const auto& header : headers) n += header.first.size() + header.second.size();
    return n;
}

OutboxLimits::OutboxLimits(const tavren::OutboxOptions& options)
    : maxMessages(options.maxMessages),
      maxBytes(options.maxBytes),
      dropOldest(options.whenFull == tavren::OutboxOptions::DropOldest) {}

void OutboxLimits::checkAlone(std::size_t messageBytes) const {
    if (maxMessages == 0) {
        throw OutboxException("The outbox keeps at most 0 messages; the message is not kept.");
    }
    if (messageBytes > maxBytes) {
        throw OutboxException("The message has " + std::to_string(messageBytes) +
                              " bytes, more than the outbox keeps at most (" + std::to_string(maxBytes) +
                              "); the message is not kept.");
    }
}

bool OutboxLimits::fits(std::size_t count, std::size_t bytes, std::size_t messageBytes) const {
    return count < maxMessages && bytes + messageBytes <= maxBytes;
}

void OutboxLimits::refuse(std::size_t count, std::size_t bytes, std::size_t messageBytes) const {
    if (count >= maxMessages) {
        throw OutboxException("The outbox is full: " + std::to_string(count) + " messages of at most " +
                              std::to_string(maxMessages) + " are kept; the message is not kept.");
    }
    throw OutboxException("The outbox is full: " + std::to_string(bytes) + " bytes of at most " +
                          std::to_string(maxBytes) + " are kept, and the message has " + std::to_string(messageBytes) +
                          "; the message is not kept.");
}

} // namespace internal
} // namespace tavren
