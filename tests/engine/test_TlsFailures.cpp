// SPDX-License-Identifier: Apache-2.0
// A TLS client that meets a peer speaking no TLS fails its attempt like any
// other failed connect: logged with a reason, retried, never hung.

#include "support/EngineFixture.h"

#include <chrono>
#include <string>

namespace tavren {
namespace test {
namespace {

TEST(TlsFailures, ATlsClientOnAPlainPortFailsItsAttemptWithAReason) {
    Watchdog watchdog(60);
    FakeBroker broker;
    CapturingLogger log;
    {
        tavren::StompClient client("127.0.0.1", broker.port(), "guest", "s3cr3t-passcode", &log, nullptr);
        tavren::TlsOptions options;
        options.verifyPeer = false;
        client.useTls(options);
        const auto start = std::chrono::steady_clock::now();
        client.openConnection(200, kelvra::utility::Version("1.2"));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
        EXPECT_FALSE(client.isConnected());
        // The scripted broker answers no TLS: the handshake runs out of the
        // connect's time or fails on what comes back.
        ASSERT_TRUE(log.waitForPrefix("ERROR: Failed to connect on first try, ", 1, 1000));
        ASSERT_TRUE(log.waitForPrefix("INFO: Retrying connect...", 1, 10000));
    }
    EXPECT_EQ(broker.framesWithCommand("CONNECT").size(), 0u);
    for (const std::string& line : log.lines()) EXPECT_EQ(line.find("s3cr3t-passcode"), std::string::npos) << line;
}

TEST(TlsFailures, AMissingCaFileFailsTheAttemptAndNamesTheFile) {
    Watchdog watchdog(60);
    FakeBroker broker;
    CapturingLogger log;
    tavren::StompClient client("127.0.0.1", broker.port(), &log, nullptr);
    tavren::TlsOptions options;
    options.caFile = "/nonexistent/ca.pem";
    client.useTls(options);
    client.openConnection(1000, kelvra::utility::Version("1.2"));
    EXPECT_FALSE(client.isConnected());
    ASSERT_TRUE(log.waitForPrefix(
        "ERROR: Failed to connect on first try, Unknown connection error. TLS: the CA file /nonexistent/ca.pem could "
        "not be loaded",
        1, 1000));
}

} // namespace
} // namespace test
} // namespace tavren
