// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_SESSION_H
#define TAVREN_INTERNAL_SESSION_H

#include <kelvra/utility/Version.h>

#include <ostream>
#include <string>
#include <vector>

namespace tavren {
namespace internal {

/**
 * What the broker's CONNECTED frame said: broker name, version and comments
 * (from "server"), the agreed protocol version ("version"), the heart-beat
 * figures ("heart-beat", kept as text) and the session id ("session"), plus
 * the header name that ACK and NACK frames must use.
 */
class Session {
public:
    Session();
    /** The values of the "server", "version", "heart-beat" and "session" headers. */
    Session(std::string server, std::string version, std::string heartBeat, std::string session);
    virtual ~Session();

    std::string serverName() const { return serverName_; }
    std::vector<std::string> serverComments() const { return serverComments_; }
    kelvra::utility::Version serverVersion() const { return serverVersion_; }
    /** True when the "server" header holds a "/". */
    bool hasVersion() const { return hasVersion_; }
    std::string sessionId() const { return sessionId_; }
    kelvra::utility::Version specificationVersion() const { return specificationVersion_; }
    /** The second figure of "heart-beat". */
    std::string clientHB() const { return clientHB_; }
    /** The first figure of "heart-beat". */
    std::string serverHB() const { return serverHB_; }
    /** "message-id" below 1.2; from 1.2 on "ack" for ActiveMQ, "id" otherwise. */
    std::string ackHeaderKey() const { return ackHeaderKey_; }
    /** Whether an ACK or NACK names the message's subscription too: on protocol 1.1 exactly. */
    bool ackNamesSubscription() const { return ackNamesSubscription_; }

private:
    std::string serverName_;
    std::vector<std::string> serverComments_;
    kelvra::utility::Version serverVersion_;
    bool hasVersion_;
    std::string sessionId_;
    kelvra::utility::Version specificationVersion_;
    std::string clientHB_;
    std::string serverHB_;
    std::string ackHeaderKey_;
    bool ackNamesSubscription_;
};

/** The session printout written into log messages. */
std::ostream& operator<<(std::ostream& os, Session const& session);

} // namespace internal
} // namespace tavren

#endif
