// SPDX-License-Identifier: Apache-2.0
#include "frames/Session.h"

#include <kelvra/utility/Version.h>

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

namespace tavren {
namespace internal {
namespace {

using kelvra::utility::Version;
typedef std::vector<std::string> Words;

std::string print(const Session& session) {
    std::ostringstream out;
    std::ostream& returned = (out << session);
    EXPECT_EQ(&out, &returned);
    return out.str();
}

TEST(Session, DefaultIsEmpty) {
    Session session;
    EXPECT_EQ("", session.serverName());
    EXPECT_TRUE(session.serverComments().empty());
    EXPECT_EQ(Version(0), session.serverVersion());
    EXPECT_FALSE(session.hasVersion());
    EXPECT_EQ("", session.sessionId());
    EXPECT_EQ(Version(0), session.specificationVersion());
    EXPECT_EQ("", session.clientHB());
    EXPECT_EQ("", session.serverHB());
    EXPECT_EQ("", session.ackHeaderKey());
}

TEST(Session, AccessorsReturnCopies) {
    Session session;
    static_assert(std::is_same<decltype(session.serverName()), std::string>::value, "copy");
    static_assert(std::is_same<decltype(session.serverComments()), std::vector<std::string>>::value, "copy");
    static_assert(std::is_same<decltype(session.serverVersion()), Version>::value, "copy");
    static_assert(std::is_same<decltype(session.hasVersion()), bool>::value, "copy");
    static_assert(std::is_same<decltype(session.sessionId()), std::string>::value, "copy");
    static_assert(std::is_same<decltype(session.specificationVersion()), Version>::value, "copy");
    static_assert(std::is_same<decltype(session.clientHB()), std::string>::value, "copy");
    static_assert(std::is_same<decltype(session.serverHB()), std::string>::value, "copy");
    static_assert(std::is_same<decltype(session.ackHeaderKey()), std::string>::value, "copy");
    static_assert(std::has_virtual_destructor<Session>::value, "virtual destructor");
}

TEST(Session, NameVersionAndTwoComments) {
    Session session("ActiveMQ/5.18.3 (Linux) amd64", "1.2", "1000,2000", "ID:host-1");
    EXPECT_EQ("ActiveMQ", session.serverName());
    EXPECT_TRUE(session.hasVersion());
    EXPECT_EQ(Version("5.18.3"), session.serverVersion());
    EXPECT_EQ((Words{"(Linux)", "amd64"}), session.serverComments());
    EXPECT_EQ(Version(12), session.specificationVersion());
    EXPECT_EQ("ID:host-1", session.sessionId());
}

TEST(Session, NameOnly) {
    Session session("RabbitMQ", "1.2", "0,0", "s");
    EXPECT_EQ("RabbitMQ", session.serverName());
    EXPECT_EQ(Version(0), session.serverVersion());
    EXPECT_TRUE(session.serverComments().empty());
    EXPECT_FALSE(session.hasVersion());
}

TEST(Session, NameAndVersionWithoutComments) {
    Session session("Apache ActiveMQ/5.4.2", "1.0", "0,0", "s");
    // The blank before the slash is part of the name.
    EXPECT_EQ("Apache ActiveMQ", session.serverName());
    EXPECT_EQ(Version("5.4.2"), session.serverVersion());
    EXPECT_TRUE(session.hasVersion());
    EXPECT_TRUE(session.serverComments().empty());
}

TEST(Session, NameAndCommentsWithoutVersion) {
    Session session("Broker build 7", "1.2", "0,0", "s");
    EXPECT_EQ("Broker", session.serverName());
    EXPECT_FALSE(session.hasVersion());
    EXPECT_EQ(Version(0), session.serverVersion());
    EXPECT_EQ((Words{"build", "7"}), session.serverComments());
}

TEST(Session, RepeatedAndTrailingBlanksGiveEmptyComments) {
    Session doubled("Broker/1.0  x", "1.2", "0,0", "s");
    EXPECT_EQ((Words{"", "x"}), doubled.serverComments());
    EXPECT_EQ(Version(10), doubled.serverVersion());

    Session trailing("Broker/2.1 x ", "1.2", "0,0", "s");
    EXPECT_EQ((Words{"x", ""}), trailing.serverComments());

    Session lone("Broker/2.1 ", "1.2", "0,0", "s");
    EXPECT_EQ(Version("2.1"), lone.serverVersion());
    EXPECT_EQ((Words{""}), lone.serverComments());
}

TEST(Session, EmptyServerValue) {
    Session session("", "", "", "");
    EXPECT_EQ("", session.serverName());
    EXPECT_FALSE(session.hasVersion());
    EXPECT_EQ(Version(0), session.serverVersion());
    EXPECT_TRUE(session.serverComments().empty());
    EXPECT_EQ(Version(0), session.specificationVersion());
    EXPECT_EQ("", session.serverHB());
    EXPECT_EQ("", session.clientHB());
    EXPECT_EQ("message-id", session.ackHeaderKey());
}

TEST(Session, SlashWithNothingAfterIt) {
    Session session("Broker/", "1.2", "0,0", "s");
    EXPECT_EQ("Broker", session.serverName());
    EXPECT_TRUE(session.hasVersion());
    EXPECT_EQ(Version(0), session.serverVersion());
    EXPECT_TRUE(session.serverComments().empty());
}

TEST(Session, HeartbeatZeroZero) {
    Session session("ActiveMQ/5.18.3", "1.2", "0,0", "s");
    EXPECT_EQ("0", session.serverHB());
    EXPECT_EQ("0", session.clientHB());
}

TEST(Session, HeartbeatFiguresServerFirst) {
    Session session("ActiveMQ/5.18.3", "1.2", "1000,2500", "s");
    EXPECT_EQ("1000", session.serverHB());
    EXPECT_EQ("2500", session.clientHB());
}

TEST(Session, HeartbeatWithoutCommaGivesTheWholeValueTwice) {
    Session session("ActiveMQ/5.18.3", "1.2", "5000", "s");
    EXPECT_EQ("5000", session.serverHB());
    EXPECT_EQ("5000", session.clientHB());
}

TEST(Session, HeartbeatIsKeptAsText) {
    Session session("ActiveMQ/5.18.3", "1.2", " 10 ,x,y", "s");
    EXPECT_EQ(" 10 ", session.serverHB());
    EXPECT_EQ("x,y", session.clientHB());
}

TEST(Session, BelowOneTwoUsesMessageId) {
    EXPECT_EQ("message-id", Session("ActiveMQ/5.18.3", "1.1", "0,0", "s").ackHeaderKey());
    EXPECT_EQ("message-id", Session("RabbitMQ/3.12", "1.1", "0,0", "s").ackHeaderKey());
    EXPECT_EQ("message-id", Session("ActiveMQ/5.18.3", "1.0", "0,0", "s").ackHeaderKey());
}

TEST(Session, OneTwoActiveMqInAnyCaseUsesAck) {
    EXPECT_EQ("ack", Session("ActiveMQ/5.18.3", "1.2", "0,0", "s").ackHeaderKey());
    EXPECT_EQ("ack", Session("activemq/5.18.3", "1.2", "0,0", "s").ackHeaderKey());
    EXPECT_EQ("ack", Session("ACTIVEMQ", "1.2", "0,0", "s").ackHeaderKey());
    EXPECT_EQ("ack", Session("aCtIvEmQ something", "1.2", "0,0", "s").ackHeaderKey());
    EXPECT_EQ("ack", Session("ActiveMQ/6.0", "1.3", "0,0", "s").ackHeaderKey());
}

TEST(Session, OneTwoOtherBrokerUsesId) {
    EXPECT_EQ("id", Session("RabbitMQ/3.12.0", "1.2", "0,0", "s").ackHeaderKey());
    EXPECT_EQ("id", Session("ActiveMQ-Artemis/2.31", "1.2", "0,0", "s").ackHeaderKey());
    EXPECT_EQ("id", Session("Apache ActiveMQ/5.4", "1.2", "0,0", "s").ackHeaderKey());
    EXPECT_EQ("id", Session("", "1.2", "0,0", "s").ackHeaderKey());
}

TEST(Session, PrintoutWithComments) {
    Session session("ActiveMQ/5.18.3 (Linux) amd64", "1.2", "1000,2000", "ID:host-1");
    EXPECT_EQ("Broker name: ActiveMQ\n"
              "    version: 5.18.3\n"
              "\n"
              "  comments : (Linux) amd64 \n"
              "\n"
              "Session id : ID:host-1\n"
              "Heartbeats : \n"
              "  Client must signal every 2000ms\n"
              "  Server must signal every 1000ms\n",
              print(session));
}

TEST(Session, PrintoutWithoutComments) {
    Session session("RabbitMQ", "1.1", "0,0", "session-7");
    EXPECT_EQ("Broker name: RabbitMQ\n"
              "    version: 0\n"
              "\n"
              "\n"
              "\n"
              "Session id : session-7\n"
              "Heartbeats : \n"
              "  Client must signal every 0ms\n"
              "  Server must signal every 0ms\n",
              print(session));
}

TEST(Session, PrintoutOfADefaultSession) {
    EXPECT_EQ("Broker name: \n"
              "    version: 0\n"
              "\n"
              "\n"
              "\n"
              "Session id : \n"
              "Heartbeats : \n"
              "  Client must signal every ms\n"
              "  Server must signal every ms\n",
              print(Session()));
}

TEST(Session, PrintoutWithAnEmptyComment) {
    Session session("Broker/1.0 ", "1.2", "5", "x");
    EXPECT_EQ("Broker name: Broker\n"
              "    version: 1.0\n"
              "\n"
              "  comments :  \n"
              "\n"
              "Session id : x\n"
              "Heartbeats : \n"
              "  Client must signal every 5ms\n"
              "  Server must signal every 5ms\n",
              print(session));
}

TEST(Session, CopiesKeepEverything) {
    Session original("ActiveMQ/5.18.3 a b", "1.2", "1,2", "id");
    Session copy = original;
    EXPECT_EQ(print(original), print(copy));
    EXPECT_EQ("ack", copy.ackHeaderKey());
}

} // namespace
} // namespace internal
} // namespace tavren
