// SPDX-License-Identifier: Apache-2.0
#include "frames/SubscribeFrame.h"
#include "frames/UnsubscribeFrame.h"

#include "support/UuidText.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace tavren {
namespace internal {
namespace {

using tavren::test::isUuid;

bool isSubscriptionId(const std::string& text) {
    return text.compare(0, 13, "subscription/") == 0 && isUuid(text.substr(13));
}

TEST(SubscribeFrame, ClientIndividualFrame) {
    SubscribeFrame frame("/queue/a", SubscribeFrame::CLIENT_INDIVIDUAL);
    EXPECT_EQ("SUBSCRIBE", frame.command());
    const std::string id = frame.subscriptionId();
    EXPECT_TRUE(isSubscriptionId(id)) << id;
    EXPECT_EQ((HeaderMap{{"ack", "client-individual"}, {"destination", "/queue/a"}, {"id", id}}), frame.headers());
    EXPECT_EQ("/queue/a", frame.destination());
    EXPECT_EQ(SubscribeFrame::CLIENT_INDIVIDUAL, frame.ackMode());
    EXPECT_EQ(nullptr, frame.body());
    EXPECT_EQ("", frame.getReceiptId());
}

TEST(SubscribeFrame, AckModeTexts) {
    SubscribeFrame automatic("/queue/a", SubscribeFrame::AUTO);
    SubscribeFrame client("/queue/a", SubscribeFrame::CLIENT);
    SubscribeFrame individual("/queue/a", SubscribeFrame::CLIENT_INDIVIDUAL);
    EXPECT_EQ("auto", automatic.headers().at("ack"));
    EXPECT_EQ("client", client.headers().at("ack"));
    EXPECT_EQ("client-individual", individual.headers().at("ack"));
    EXPECT_EQ("auto", automatic.createAckModeStr());
    EXPECT_EQ("client", client.createAckModeStr());
    EXPECT_EQ("client-individual", individual.createAckModeStr());
    EXPECT_EQ(0, SubscribeFrame::AUTO);
    EXPECT_EQ(1, SubscribeFrame::CLIENT);
    EXPECT_EQ(2, SubscribeFrame::CLIENT_INDIVIDUAL);
}

TEST(SubscribeFrame, SameDestinationGetsDifferentIds) {
    SubscribeFrame first("/queue/a", SubscribeFrame::CLIENT_INDIVIDUAL);
    SubscribeFrame second("/queue/a", SubscribeFrame::CLIENT_INDIVIDUAL);
    EXPECT_NE(first.headers().at("id"), second.headers().at("id"));
    EXPECT_NE(first.subscriptionId(), second.subscriptionId());
}

TEST(SubscribeFrame, CreateSubIdIsFreshOnEveryCall) {
    SubscribeFrame frame("/queue/a", SubscribeFrame::AUTO);
    std::set<std::string> ids;
    for (int i = 0; i < 100; ++i) {
        const std::string id = frame.createSubId();
        EXPECT_TRUE(isSubscriptionId(id)) << id;
        ids.insert(id);
    }
    EXPECT_EQ(100u, ids.size());
    EXPECT_EQ(0u, ids.count(frame.subscriptionId()));
    // The frame's own id does not change.
    EXPECT_EQ(frame.subscriptionId(), frame.headers().at("id"));
}

TEST(SubscribeFrame, AShortIdIsANumberOfTheProcessUniqueAcrossFrames) {
    SubscribeFrame first("/queue/a", SubscribeFrame::CLIENT_INDIVIDUAL);
    SubscribeFrame second("/queue/a", SubscribeFrame::CLIENT_INDIVIDUAL);
    first.useShortId();
    second.useShortId();
    for (const SubscribeFrame* frame : {&first, &second}) {
        const std::string id = frame->subscriptionId();
        ASSERT_EQ(0u, id.rfind("subscription/", 0)) << id;
        ASSERT_GT(id.size(), 13u) << id;
        EXPECT_EQ(std::string::npos, id.find_first_not_of("0123456789", 13)) << id;
        EXPECT_EQ((HeaderMap{{"ack", "client-individual"}, {"destination", "/queue/a"}, {"id", id}}), frame->headers());
    }
    // Counted on: the second frame's number follows the first's.
    EXPECT_EQ(std::stoull(first.subscriptionId().substr(13)) + 1, std::stoull(second.subscriptionId().substr(13)));
}

TEST(SubscribeFrame, SetAckModeChangesOnlyAck) {
    SubscribeFrame frame("/queue/a", SubscribeFrame::CLIENT_INDIVIDUAL);
    const std::string id = frame.subscriptionId();
    frame.setAckMode(SubscribeFrame::AUTO);
    EXPECT_EQ(0, frame.ackMode());
    EXPECT_EQ((HeaderMap{{"ack", "auto"}, {"destination", "/queue/a"}, {"id", id}}), frame.headers());
    EXPECT_EQ(id, frame.subscriptionId());
    frame.setAckMode(SubscribeFrame::CLIENT);
    EXPECT_EQ(SubscribeFrame::CLIENT, frame.ackMode());
    EXPECT_EQ((HeaderMap{{"ack", "client"}, {"destination", "/queue/a"}, {"id", id}}), frame.headers());
}

TEST(SubscribeFrame, SetDestinationChangesOnlyDestination) {
    SubscribeFrame frame("/queue/a", SubscribeFrame::CLIENT);
    const std::string id = frame.subscriptionId();
    frame.setDestination("/queue/b");
    EXPECT_EQ("/queue/b", frame.destination());
    EXPECT_EQ((HeaderMap{{"ack", "client"}, {"destination", "/queue/b"}, {"id", id}}), frame.headers());
    EXPECT_EQ(id, frame.subscriptionId());
    EXPECT_EQ(SubscribeFrame::CLIENT, frame.ackMode());
}

TEST(SubscribeFrame, EmptyDestinationIsKept) {
    SubscribeFrame frame("", SubscribeFrame::AUTO);
    EXPECT_EQ("", frame.destination());
    EXPECT_EQ((HeaderMap{{"ack", "auto"}, {"destination", ""}, {"id", frame.subscriptionId()}}), frame.headers());
}

TEST(SubscribeFrame, ReceiptJoinsTheHeaders) {
    SubscribeFrame frame("/queue/a", SubscribeFrame::CLIENT_INDIVIDUAL);
    frame.requestReceipt();
    EXPECT_EQ(0u, frame.getReceiptId().rfind("SUBSCRIBE/", 0));
    EXPECT_EQ((HeaderMap{{"ack", "client-individual"},
                         {"destination", "/queue/a"},
                         {"id", frame.subscriptionId()},
                         {"receipt", frame.getReceiptId()}}),
              frame.headers());
}

TEST(UnsubscribeFrame, CarriesOnlyTheId) {
    SubscribeFrame subscribe("/queue/a", SubscribeFrame::CLIENT_INDIVIDUAL);
    UnsubscribeFrame frame(subscribe.subscriptionId());
    EXPECT_EQ("UNSUBSCRIBE", frame.command());
    EXPECT_EQ((HeaderMap{{"id", subscribe.subscriptionId()}}), frame.headers());
    EXPECT_EQ(0u, frame.headers().count("destination"));
    EXPECT_EQ(nullptr, frame.body());
}

TEST(UnsubscribeFrame, IdIsNotChecked) {
    UnsubscribeFrame empty("");
    EXPECT_EQ((HeaderMap{{"id", ""}}), empty.headers());
    UnsubscribeFrame odd(" not/an id ");
    EXPECT_EQ((HeaderMap{{"id", " not/an id "}}), odd.headers());
}

TEST(UnsubscribeFrame, ReceiptJoinsTheId) {
    UnsubscribeFrame frame("subscription/x");
    frame.requestReceipt();
    EXPECT_EQ(0u, frame.getReceiptId().rfind("UNSUBSCRIBE/", 0));
    EXPECT_EQ((HeaderMap{{"id", "subscription/x"}, {"receipt", frame.getReceiptId()}}), frame.headers());
}

} // namespace
} // namespace internal
} // namespace tavren
