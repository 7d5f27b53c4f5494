// SPDX-License-Identifier: Apache-2.0
#include "client/FrameResult.h"

#include "support/Bytes.h"
#include "support/WireFrames.h"

#include <gtest/gtest.h>

namespace {

using kelvra::SharedPtr;
using kelvra::threads::CondVar;
using tavren::internal::FrameResult;
using tavren::internal::ServerFrame;
using tavren::test::bytes;
using tavren::test::frameFromWire;

SharedPtr<ServerFrame> answer(const std::string& wire) { return SharedPtr<ServerFrame>(frameFromWire(wire).release()); }

TEST(FrameResult, ErrorAnswerGivesMessageHeaderAndBody) {
    CondVar cond;
    FrameResult result(&cond);
    result.setResultFrame(answer(bytes("ERROR\nmessage:Subscription refused\nreceipt-id:r1\n\nNot allowed here\0")));
    EXPECT_TRUE(result.hasResult());
    EXPECT_TRUE(result.isError());
    EXPECT_EQ(result.getShortDescription(), "Subscription refused");
    EXPECT_STREQ(result.getDescription(), "Not allowed here");
}

TEST(FrameResult, ReceiptIsNotAnError) {
    CondVar cond;
    FrameResult result(&cond);
    result.setResultFrame(answer(bytes("RECEIPT\nreceipt-id:r1\n\n\0")));
    EXPECT_FALSE(result.isError());
}

TEST(FrameResult, AnswerWithoutMessageHeaderHasEmptyShortDescription) {
    CondVar cond;
    FrameResult result(&cond);
    result.setResultFrame(answer(bytes("ERROR\nreceipt-id:r1\n\nbody\0")));
    EXPECT_EQ(result.getShortDescription(), "");
}

TEST(FrameResult, UnansweredSlotReadsAsNothingInsteadOfANullFrame) {
    CondVar cond;
    FrameResult result(&cond);
    EXPECT_FALSE(result.hasResult());
    EXPECT_FALSE(result.isError());
    EXPECT_EQ(result.getShortDescription(), "");
    EXPECT_STREQ(result.getDescription(), "");
    EXPECT_FALSE(result.isAbandoned());
    EXPECT_EQ(result.condition(), &cond);
}

TEST(FrameResult, SharesTheFrameAndReleasesItWhenReplaced) {
    CondVar cond;
    SharedPtr<ServerFrame> first = answer(bytes("RECEIPT\nreceipt-id:a\n\n\0"));
    {
        FrameResult result(&cond);
        result.setResultFrame(first);
        EXPECT_EQ(first.useCount(), 2);
        result.setResultFrame(first); // the same frame again changes nothing
        EXPECT_EQ(first.useCount(), 2);
        result.setResultFrame(answer(bytes("ERROR\nreceipt-id:a\n\n\0")));
        EXPECT_EQ(first.useCount(), 1);
        EXPECT_TRUE(result.isError());
    }
    EXPECT_EQ(first.useCount(), 1);
}

TEST(FrameResult, AbandonedSlotKeepsAnAnswerItAlreadyHad) {
    CondVar cond;
    FrameResult result(&cond);
    result.setResultFrame(answer(bytes("RECEIPT\nreceipt-id:a\n\n\0")));
    result.abandon();
    EXPECT_TRUE(result.isAbandoned());
    EXPECT_TRUE(result.hasResult());
}

} // namespace
