// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_ACKFRAME_H
#define TAVREN_INTERNAL_ACKFRAME_H

#include "frames/ClientFrame.h"

#include <cstddef>
#include <string>

namespace tavren {
namespace internal {

class ServerFrame;
class Session;

/**
 * An ACK or NACK as the strings it is written from: its command and
 * headers. But for the key, they point into the message's headers and
 * constants, and are valid while the message is.
 */
struct AckPieces {
    const std::string* command;
    std::string key;                 // the session's name for the message's id
    const std::string* id;           // the message's "message-id"
    const std::string* subscription; // the message's "subscription", or null when not sent

    /** Calls visit(name, value) for each header, in name order (the order a frame's headers are written in). */
    template <typename Visit>
    void eachHeader(Visit visit) const {
        const bool subscriptionFirst = subscription && subscriptionName() < key;
        if (subscriptionFirst) visit(subscriptionName(), *subscription);
        visit(key, *id);
        if (subscription && !subscriptionFirst) visit(subscriptionName(), *subscription);
    }
    static const std::string& subscriptionName() {
        static const std::string name = "subscription";
        return name;
    }
};

/**
 * The ACK or NACK frame that settles one MESSAGE frame, named the way the
 * session's protocol version requires.
 */
class AckFrame : public ClientFrame {
public:
    // Fixed underlying type: any int is a valid value, and only 1 means NACK.
    enum AcknowledgeState : int { ACK = 0, NACK = 1 };

    /**
     * Builds the whole frame: "NACK" for state 1, "ACK" for any other value;
     * "subscription" on a 1.1 session only; then the session's ackHeaderKey()
     * set to the message's "message-id". A missing header throws
     * std::out_of_range ("map::at"). Neither pointer is kept.
     */
    AckFrame(const ServerFrame* message, const Session* session, AckFrame::AcknowledgeState state);
    virtual ~AckFrame();

    /**
     * The same frame as its strings, none copied (for a writer that sends
     * them as they are). False when the message lacks a header it needs.
     */
    static bool piecesFor(const ServerFrame* message, const Session* session, AckFrame::AcknowledgeState state,
                          AckPieces* out);
    /** As above, with what it needs of the session: its ackHeaderKey() and ackNamesSubscription(). */
    static bool piecesFor(const ServerFrame* message, const std::string& ackKey, bool withSubscription,
                          AckFrame::AcknowledgeState state, AckPieces* out);
};

} // namespace internal
} // namespace tavren

#endif
