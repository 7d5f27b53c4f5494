// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_SUBSCRIBEFRAME_H
#define TAVREN_INTERNAL_SUBSCRIBEFRAME_H

#include "frames/ClientFrame.h"

#include <string>

namespace tavren {
namespace internal {

/**
 * The SUBSCRIBE frame: "ack", "destination" and "id", whatever the protocol
 * version. The id is made by the frame itself and never changes; the members
 * always agree with their headers.
 */
class SubscribeFrame : public ClientFrame {
public:
    enum AcknowledgeMode { AUTO = 0, CLIENT = 1, CLIENT_INDIVIDUAL = 2 };

    SubscribeFrame(std::string destination, SubscribeFrame::AcknowledgeMode mode);
    virtual ~SubscribeFrame();

    std::string destination() const { return destination_; }
    SubscribeFrame::AcknowledgeMode ackMode() const { return ackMode_; }
    std::string subscriptionId() const { return subscriptionId_; }

    /** Sets the member, then the "destination" header. */
    void setDestination(const std::string& destination);

    /** Sets the member, then the "ack" header. */
    void setAckMode(SubscribeFrame::AcknowledgeMode mode);

    /** Adds the headers whose names the frame does not already carry, in name order on the wire. */
    void addHeaders(const HeaderMap& extra);

    /** "auto", "client" or "client-individual"; empty for any other value. */
    std::string createAckModeStr() const;

    /** "subscription/" followed by a fresh UUID; different on every call. */
    std::string createSubId() const;

    /**
     * Replaces the id, member and header, with "subscription/" followed by
     * the next number of a count this process keeps from 1: unique among
     * the ids of the process, as a broker needs it (it keys subscriptions
     * by connection), in a few bytes where the UUID takes 36.
     */
    void useShortId();

private:
    std::string destination_;
    SubscribeFrame::AcknowledgeMode ackMode_;
    std::string subscriptionId_;
};

} // namespace internal
} // namespace tavren

#endif
