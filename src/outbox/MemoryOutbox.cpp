// SPDX-License-Identifier: Apache-2.0
#include "outbox/MemoryOutbox.h"

#include <kelvra/utility/Uuid.h>

namespace tavren {
namespace internal {

MemoryOutbox::MemoryOutbox(const tavren::OutboxOptions& options)
    : limits(options), prefix(kelvra::utility::generateUuid()) {}

std::uint64_t MemoryOutbox::add(const std::string& destination, const HeaderMap& headers, const std::string& body,
                                std::vector<DroppedEntry>* dropped) {
    const std::size_t size = outboxEntryBytes(destination, headers, body);
    limits.checkAlone(size);
    Kept kept{destination, headers, body, size};
    std::lock_guard<std::mutex> guard(lock);
    while (!limits.fits(messages.size(), byteCount, size)) {
        if (!limits.dropsOldest()) limits.refuse(messages.size(), byteCount, size);
        auto oldest = messages.begin();
        if (dropped) dropped->push_back(DroppedEntry{oldest->first, oldest->second.destination});
        byteCount -= oldest->second.size;
        messages.erase(oldest);
    }
    const std::uint64_t sequence = ++lastSequence;
    messages.emplace_hint(messages.end(), sequence, std::move(kept));
    byteCount += size;
    keptCount.store(messages.size(), std::memory_order_relaxed);
    keptBytes.store(byteCount, std::memory_order_relaxed);
    return sequence;
}

void MemoryOutbox::readAfter(std::uint64_t after, std::size_t maxCount, std::vector<OutboxEntry>* out) {
    std::lock_guard<std::mutex> guard(lock);
    for (auto it = messages.upper_bound(after); it != messages.end() && maxCount > 0; ++it, --maxCount) {
        out->push_back(OutboxEntry{it->first, it->second.destination, it->second.headers, it->second.body});
    }
}

void MemoryOutbox::remove(const std::vector<std::uint64_t>& sequences) {
    std::lock_guard<std::mutex> guard(lock);
    for (std::uint64_t sequence : sequences) {
        auto it = messages.find(sequence);
        if (it == messages.end()) continue;
        byteCount -= it->second.size;
        messages.erase(it);
    }
    keptCount.store(messages.size(), std::memory_order_relaxed);
    keptBytes.store(byteCount, std::memory_order_relaxed);
}

std::unique_ptr<OutboxStore> makeMemoryOutbox(const tavren::OutboxOptions& options) {
    return std::unique_ptr<OutboxStore>(new MemoryOutbox(options));
}

} // namespace internal
} // namespace tavren
