// SPDX-License-Identifier: Apache-2.0
#include "frames/AckFrame.h"
#include "frames/DisconnectFrame.h"
#include "frames/SendFrame.h"
#include "frames/ServerFrame.h"
#include "frames/Session.h"

#include "support/WireFrames.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace tavren {
namespace internal {
namespace {

using test::frameFromWire;

// A MESSAGE frame as a broker writes it; bytes may hold NULs.
std::unique_ptr<ServerFrame> message(const std::string& headerLines) {
    const std::string bytes = "MESSAGE\n" + headerLines + "\nhi" + std::string(1, '\0');
    std::unique_ptr<ServerFrame> frame = frameFromWire(bytes);
    EXPECT_TRUE(frame != nullptr);
    if (frame) {
        EXPECT_EQ("MESSAGE", frame->command());
    }
    return frame;
}

const char* const kFullMessage = "ack:A-77\ndestination:/queue/a\nmessage-id:42\nsubscription:s1\n";

// ---------------------------------------------------------------- SendFrame

TEST(SendFrame, FreshFrame) {
    SendFrame frame;
    EXPECT_EQ("SEND", frame.command());
    EXPECT_EQ((HeaderMap{{"content-type", "text/plain"}}), frame.headers());
    EXPECT_EQ(nullptr, frame.body());
    EXPECT_EQ("", frame.getReceiptId());
}

TEST(SendFrame, SetTextCountsAndKeepsThePointer) {
    char text[] = "hello";
    SendFrame frame;
    frame.setText(text);
    EXPECT_EQ((HeaderMap{{"content-length", "5"}, {"content-type", "text/plain"}}), frame.headers());
    EXPECT_EQ(text, frame.body());
}

TEST(SendFrame, EmptyTextHasLengthZeroAndANonNullBody) {
    char text[] = "";
    SendFrame frame;
    frame.setText(text);
    EXPECT_EQ((HeaderMap{{"content-length", "0"}, {"content-type", "text/plain"}}), frame.headers());
    ASSERT_NE(nullptr, frame.body());
    EXPECT_STREQ("", frame.body());
}

TEST(SendFrame, LengthStopsAtTheFirstNul) {
    char text[] = {'a', 'b', 'c', '\0', 'd', 'e', '\0'};
    SendFrame frame;
    frame.setText(text);
    EXPECT_EQ("3", frame.headers().at("content-length"));
    EXPECT_EQ(text, frame.body());
}

TEST(SendFrame, SecondTextReplacesLengthAndBody) {
    char first[] = "first text";
    char second[] = "2nd";
    SendFrame frame;
    frame.setText(first);
    frame.setText(second);
    EXPECT_EQ((HeaderMap{{"content-length", "3"}, {"content-type", "text/plain"}}), frame.headers());
    EXPECT_EQ(second, frame.body());
    EXPECT_STREQ("first text", first); // the earlier text is left alone
}

TEST(SendFrame, LongTextLengthHasNoSeparators) {
    std::string text(123456, 'x');
    SendFrame frame;
    frame.setText(&text[0]);
    EXPECT_EQ("123456", frame.headers().at("content-length"));
}

TEST(SendFrame, SetDestination) {
    SendFrame frame;
    frame.setDestination("/queue/orders");
    EXPECT_EQ((HeaderMap{{"content-type", "text/plain"}, {"destination", "/queue/orders"}}), frame.headers());
    frame.setDestination("");
    EXPECT_EQ((HeaderMap{{"content-type", "text/plain"}, {"destination", ""}}), frame.headers());
}

TEST(SendFrame, ExtraHeadersNeverOverrideTheFramesOwn) {
    char text[] = "hello";
    SendFrame frame;
    frame.setText(text);
    frame.setDestination("/queue/a");
    HeaderMap extra{{"content-type", "application/json"}, {"priority", "4"}};
    frame.setAdditionalHeaders(&extra);
    EXPECT_EQ((HeaderMap{{"content-length", "5"},
                         {"content-type", "text/plain"},
                         {"destination", "/queue/a"},
                         {"priority", "4"}}),
              frame.headers());
    EXPECT_EQ((HeaderMap{{"content-type", "application/json"}, {"priority", "4"}}), extra);
}

TEST(SendFrame, ExtraHeadersCannotOverrideLengthOrDestination) {
    char text[] = "hello";
    SendFrame frame;
    frame.setText(text);
    frame.setDestination("/queue/a");
    HeaderMap extra{{"content-length", "99"}, {"destination", "/queue/b"}, {"Content-Type", "text/html"}};
    frame.setAdditionalHeaders(&extra);
    EXPECT_EQ((HeaderMap{{"Content-Type", "text/html"},
                         {"content-length", "5"},
                         {"content-type", "text/plain"},
                         {"destination", "/queue/a"}}),
              frame.headers());
}

TEST(SendFrame, NullOrEmptyExtraHeadersChangeNothing) {
    char text[] = "hello";
    SendFrame frame;
    frame.setText(text);
    frame.setDestination("/queue/a");
    const HeaderMap before = frame.headers();
    frame.setAdditionalHeaders(nullptr);
    EXPECT_EQ(before, frame.headers());
    HeaderMap empty;
    frame.setAdditionalHeaders(&empty);
    EXPECT_EQ(before, frame.headers());
    EXPECT_EQ(text, frame.body());
}

// ----------------------------------------------------------------- AckFrame

TEST(AckFrame, StateOneIsNack) {
    std::unique_ptr<ServerFrame> msg = message(kFullMessage);
    ASSERT_TRUE(msg);
    Session session("ActiveMQ/5.18.3", "1.0", "0,0", "ID:1");
    AckFrame frame(msg.get(), &session, AckFrame::NACK);
    EXPECT_EQ("NACK", frame.command());
    EXPECT_EQ((HeaderMap{{"message-id", "42"}}), frame.headers());
    EXPECT_EQ(nullptr, frame.body());
}

TEST(AckFrame, AnyOtherStateIsAck) {
    std::unique_ptr<ServerFrame> msg = message(kFullMessage);
    ASSERT_TRUE(msg);
    Session session("ActiveMQ/5.18.3", "1.0", "0,0", "ID:1");
    EXPECT_EQ("ACK", AckFrame(msg.get(), &session, AckFrame::ACK).command());
    EXPECT_EQ("ACK", AckFrame(msg.get(), &session, static_cast<AckFrame::AcknowledgeState>(2)).command());
    EXPECT_EQ("ACK", AckFrame(msg.get(), &session, static_cast<AckFrame::AcknowledgeState>(-1)).command());
    EXPECT_EQ(0, AckFrame::ACK);
    EXPECT_EQ(1, AckFrame::NACK);
}

TEST(AckFrame, VersionOneZeroCarriesOnlyMessageId) {
    std::unique_ptr<ServerFrame> msg = message(kFullMessage);
    ASSERT_TRUE(msg);
    Session session("RabbitMQ/3.12.0", "1.0", "0,0", "s");
    AckFrame frame(msg.get(), &session, AckFrame::ACK);
    EXPECT_EQ((HeaderMap{{"message-id", "42"}}), frame.headers());
    EXPECT_EQ("", frame.getReceiptId());
}

TEST(AckFrame, VersionOneOneAddsSubscription) {
    std::unique_ptr<ServerFrame> msg = message(kFullMessage);
    ASSERT_TRUE(msg);
    Session session("ActiveMQ/5.18.3", "1.1", "0,0", "s");
    AckFrame frame(msg.get(), &session, AckFrame::ACK);
    EXPECT_EQ((HeaderMap{{"message-id", "42"}, {"subscription", "s1"}}), frame.headers());
}

TEST(AckFrame, VersionOneOneWithoutSubscriptionThrows) {
    std::unique_ptr<ServerFrame> msg = message("destination:/queue/a\nmessage-id:42\n");
    ASSERT_TRUE(msg);
    Session session("ActiveMQ/5.18.3", "1.1", "0,0", "s");
    try {
        AckFrame frame(msg.get(), &session, AckFrame::ACK);
        FAIL() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ("map::at", e.what());
    }
}

TEST(AckFrame, VersionOneZeroDoesNotNeedSubscription) {
    std::unique_ptr<ServerFrame> msg = message("destination:/queue/a\nmessage-id:42\n");
    ASSERT_TRUE(msg);
    Session session("ActiveMQ/5.18.3", "1.0", "0,0", "s");
    AckFrame frame(msg.get(), &session, AckFrame::NACK);
    EXPECT_EQ((HeaderMap{{"message-id", "42"}}), frame.headers());
}

TEST(AckFrame, MissingMessageIdThrows) {
    std::unique_ptr<ServerFrame> msg = message("destination:/queue/a\nsubscription:s1\n");
    ASSERT_TRUE(msg);
    Session session("RabbitMQ/3.12.0", "1.2", "0,0", "s");
    try {
        AckFrame frame(msg.get(), &session, AckFrame::ACK);
        FAIL() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ("map::at", e.what());
    }
}

TEST(AckFrame, VersionOneTwoOtherBrokerUsesIdWithTheMessageId) {
    std::unique_ptr<ServerFrame> msg = message(kFullMessage);
    ASSERT_TRUE(msg);
    Session session("RabbitMQ/3.12.0", "1.2", "0,0", "s");
    AckFrame frame(msg.get(), &session, AckFrame::ACK);
    EXPECT_EQ((HeaderMap{{"id", "42"}}), frame.headers());
}

TEST(AckFrame, VersionOneTwoActiveMqUsesAck) {
    std::unique_ptr<ServerFrame> msg = message(kFullMessage);
    ASSERT_TRUE(msg);
    Session session("ActiveMQ/5.18.3", "1.2", "0,0", "s");
    AckFrame frame(msg.get(), &session, AckFrame::NACK);
    EXPECT_EQ("NACK", frame.command());
    EXPECT_EQ((HeaderMap{{"ack", "42"}}), frame.headers());
}

TEST(AckFrame, LaterVersionsAreTreatedAsOneTwo) {
    std::unique_ptr<ServerFrame> msg = message(kFullMessage);
    ASSERT_TRUE(msg);
    Session session("Artemis/2.31", "1.3", "0,0", "s");
    AckFrame frame(msg.get(), &session, AckFrame::ACK);
    EXPECT_EQ((HeaderMap{{"id", "42"}}), frame.headers());
}

TEST(AckFrame, KeepsNoPointerToItsSources) {
    std::unique_ptr<ServerFrame> msg = message(kFullMessage);
    ASSERT_TRUE(msg);
    std::unique_ptr<Session> session(new Session("ActiveMQ/5.18.3", "1.1", "0,0", "s"));
    AckFrame frame(msg.get(), session.get(), AckFrame::ACK);
    msg.reset();
    session.reset();
    EXPECT_EQ("ACK", frame.command());
    EXPECT_EQ((HeaderMap{{"message-id", "42"}, {"subscription", "s1"}}), frame.headers());
}

// ---------------------------------------------------------- DisconnectFrame

TEST(DisconnectFrame, CommandOnly) {
    DisconnectFrame frame;
    EXPECT_EQ("DISCONNECT", frame.command());
    EXPECT_TRUE(frame.headers().empty());
    EXPECT_EQ(0u, frame.headers().count("receipt"));
    EXPECT_EQ(nullptr, frame.body());
    EXPECT_EQ("", frame.getReceiptId());
}

TEST(DisconnectFrame, ReceiptOnRequestOnly) {
    DisconnectFrame frame;
    frame.requestReceipt();
    frame.requestReceipt();
    EXPECT_EQ(0u, frame.getReceiptId().rfind("DISCONNECT/", 0));
    EXPECT_EQ((HeaderMap{{"receipt", frame.getReceiptId()}}), frame.headers());
}

} // namespace
} // namespace internal
} // namespace tavren
