// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_MEMORYOUTBOX_H
#define TAVREN_INTERNAL_MEMORYOUTBOX_H

#include "outbox/OutboxLimits.h"
#include "outbox/OutboxStore.h"

#include <atomic>
#include <map>
#include <mutex>

namespace tavren {
namespace internal {

/** An outbox in memory: the messages in a map by sequence, under one lock. */
class MemoryOutbox : public OutboxStore {
public:
    explicit MemoryOutbox(const tavren::OutboxOptions& options);

    std::uint64_t add(const std::string& destination, const HeaderMap& headers, const std::string& body,
                      std::vector<DroppedEntry>* dropped) override;
    void readAfter(std::uint64_t after, std::size_t maxCount, std::vector<OutboxEntry>* out) override;
    void remove(const std::vector<std::uint64_t>& sequences) override;
    std::size_t count() const override { return keptCount.load(std::memory_order_relaxed); }
    std::size_t bytes() const override { return keptBytes.load(std::memory_order_relaxed); }
    const std::string& idPrefix() const override { return prefix; }
    bool durable() const override { return false; }

private:
    struct Kept {
        std::string destination;
        HeaderMap headers;
        std::string body;
        std::size_t size;
    };

    const OutboxLimits limits;
    const std::string prefix;
    std::mutex lock;
    std::map<std::uint64_t, Kept> messages;
    std::uint64_t lastSequence = 0;
    std::size_t byteCount = 0;
    std::atomic<std::size_t> keptCount{0}, keptBytes{0};
};

} // namespace internal
} // namespace tavren

#endif
