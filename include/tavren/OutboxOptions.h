// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_OUTBOXOPTIONS_H
#define TAVREN_OUTBOXOPTIONS_H

#include <cstddef>
#include <string>

namespace tavren {

/**
 * How a client keeps the messages it sends until the broker confirms them
 * (StompClient::useOutbox). docs/outbox.md explains what each choice costs.
 */
struct OutboxOptions {
    /** The file that keeps unconfirmed messages (an SQLite database); empty: in memory only. */
    std::string file;
    /** The most messages kept at once. */
    std::size_t maxMessages = 10000;
    /** The most bytes kept at once (bodies and headers). */
    std::size_t maxBytes = 16 * 1024 * 1024;
    /** What sendToQueue does when the outbox is full. */
    enum WhenFull {
        RefuseNew, ///< throw OutboxException; the new message is not kept
        DropOldest ///< drop the oldest kept message (logged with its destination and tavren-id)
    };
    WhenFull whenFull = RefuseNew; ///< what a full outbox does with a new message
    /** What a message kept in a file survives once sendToQueue has returned. */
    enum Durability {
        PowerLoss, ///< on stable storage before sendToQueue returns
        Crash      ///< survives a crash of the application at once, a power loss all but the last moments
    };
    Durability durability = PowerLoss; ///< what a message in a file survives; ignored in memory
};

} // namespace tavren

#endif
