// SPDX-License-Identifier: Apache-2.0
#include "support/WireFrames.h"

#include "support/LoopbackPeer.h"
#include "transport/StompConnection.h"

#include <gtest/gtest.h>

namespace tavren {
namespace test {

std::unique_ptr<internal::ServerFrame> frameFromWire(const std::string& bytes) {
    LoopbackPeer peer;
    internal::StompConnection connection;
    apr_status_t rc = connection.connect("127.0.0.1", peer.port(), nullptr, nullptr);
    EXPECT_EQ(0, rc) << "connect to the loopback peer";
    if (rc != 0) return nullptr;
    EXPECT_TRUE(peer.accept());
    EXPECT_TRUE(peer.send(bytes));
    internal::ServerFrame* frame = nullptr;
    long long timeout = 5000000;
    rc = connection.read(&frame, true, &timeout);
    EXPECT_EQ(0, rc) << "read of the peer's bytes";
    connection.disconnect();
    return std::unique_ptr<internal::ServerFrame>(rc == 0 ? frame : nullptr);
}

} // namespace test
} // namespace tavren
