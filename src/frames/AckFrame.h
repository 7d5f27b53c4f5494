// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_ACKFRAME_H
#define TAVREN_INTERNAL_ACKFRAME_H

#include "frames/ClientFrame.h"

namespace tavren {
namespace internal {

class ServerFrame;
class Session;

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
};

} // namespace internal
} // namespace tavren

#endif
