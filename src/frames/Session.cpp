// SPDX-License-Identifier: Apache-2.0
#include "frames/Session.h"

#include <cctype>

namespace tavren {
namespace internal {

using kelvra::utility::Version;

Session::Session() : serverVersion_(0), hasVersion_(false), specificationVersion_(0), ackNamesSubscription_(false) {}

Session::Session(std::string server, std::string version, std::string heartBeat, std::string session)
    : serverVersion_(0), hasVersion_(false), specificationVersion_(0), ackNamesSubscription_(false) {
    // "server" is "name/version comment comment ...", every part optional.
    const std::string::size_type slash = server.find('/');
    hasVersion_ = slash != std::string::npos;
    const std::string::size_type blank = server.find(' ', hasVersion_ ? slash : 0);
    serverName_ = hasVersion_ ? server.substr(0, slash) : server.substr(0, blank);
    if (blank == std::string::npos) {
        if (hasVersion_) serverVersion_ = Version(server.substr(slash + 1));
    } else {
        // The blank itself goes to the version parser, which ignores it.
        if (hasVersion_) serverVersion_ = Version(server.substr(slash + 1, blank - slash));
        // Every piece between blanks is a comment, empty ones included.
        std::string::size_type start = blank + 1;
        for (std::string::size_type next = server.find(' ', start); next != std::string::npos;
             next = server.find(' ', start)) {
            serverComments_.push_back(server.substr(start, next - start));
            start = next + 1;
        }
        serverComments_.push_back(server.substr(start));
    }

    specificationVersion_ = Version(version);
    // Only 1.1 exactly wants the subscription; 1.0 and 1.2 do not.
    ackNamesSubscription_ = specificationVersion_ == Version(11);

    const std::string::size_type comma = heartBeat.find(',');
    if (comma == std::string::npos) {
        serverHB_ = heartBeat;
        clientHB_ = heartBeat;
    } else {
        serverHB_ = heartBeat.substr(0, comma);
        clientHB_ = heartBeat.substr(comma + 1);
    }

    sessionId_ = session;

    if (specificationVersion_ < Version("1.2")) {
        ackHeaderKey_ = "message-id";
    } else {
        std::string upperName = serverName_;
        for (std::string::size_type i = 0; i < upperName.size(); ++i)
            upperName[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(upperName[i])));
        if (upperName == "ACTIVEMQ")
            // Kept as it is: the second test always holds here.
            ackHeaderKey_ = specificationVersion_ >= Version("1.2") ? "ack" : "message-id";
        else
            ackHeaderKey_ = "id";
    }
}

Session::~Session() {}

std::ostream& operator<<(std::ostream& os, Session const& session) {
    os << "Broker name: " << session.serverName() << std::endl;
    os << "    version: " << session.serverVersion() << std::endl << std::endl;
    const std::vector<std::string> comments = session.serverComments();
    if (!comments.empty()) {
        os << "  comments : ";
        for (std::vector<std::string>::const_iterator it = comments.begin(); it != comments.end(); ++it)
            os << *it << " ";
    }
    os << std::endl << std::endl;
    os << "Session id : " << session.sessionId() << std::endl;
    os << "Heartbeats : " << std::endl;
    os << "  Client must signal every " << session.clientHB() << "ms" << std::endl;
    os << "  Server must signal every " << session.serverHB() << "ms" << std::endl;
    return os;
}

} // namespace internal
} // namespace tavren
