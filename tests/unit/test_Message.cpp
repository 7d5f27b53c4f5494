// SPDX-License-Identifier: Apache-2.0
// Message, the view a listener is handed: made empty, copied and assigned.
#include <tavren/Message.h>

#include "support/Bytes.h"
#include "support/WireFrames.h"

#include <gtest/gtest.h>

namespace {

using tavren::Message;
using tavren::test::bytes;
using tavren::test::frameFromWire;

TEST(MessageView, ADefaultMessageShowsAFrameOnceAssignedOne) {
    auto frame = frameFromWire(bytes("MESSAGE\ndestination:/queue/a\nmessage-id:7\n\nbody text\0"));
    Message message;
    message = Message(frame.get());
    EXPECT_STREQ("body text", message.text());
    EXPECT_EQ(&frame->headers(), &message.headers());
}

TEST(MessageView, ACopyShowsTheSameFrame) {
    auto frame = frameFromWire(bytes("MESSAGE\ndestination:/queue/a\nmessage-id:7\nk:v\n\nbody text\0"));
    const Message message(frame.get());
    const Message copy(message);
    EXPECT_EQ(message.text(), copy.text());
    EXPECT_EQ(&message.headers(), &copy.headers());
    EXPECT_EQ("v", copy.headers().at("k"));
}

} // namespace
