// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_CONNECTEDPEER_H
#define TAVREN_TEST_CONNECTEDPEER_H

#include "support/LoopbackPeer.h"
#include "transport/StompConnection.h"

#include <gtest/gtest.h>

namespace tavren {
namespace test {

/** A test fixture: a StompConnection connected to a raw loopback peer that has accepted it. */
class ConnectedPeer : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, connection.connect("127.0.0.1", peer.port(), nullptr, nullptr));
        ASSERT_TRUE(peer.accept());
    }

    LoopbackPeer peer;
    internal::StompConnection connection;
};

} // namespace test
} // namespace tavren

#endif
