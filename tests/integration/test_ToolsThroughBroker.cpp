// SPDX-License-Identifier: Apache-2.0
// tavren-send and tavren-listen moving messages through RabbitMQ
// (scripts/rabbitmq.sh start), as an operator would use them, on its plain
// and its TLS port.

#include "support/RealBroker.h"
#include "support/ToolProcess.h"
#include "support/Watchdog.h"

#include <kelvra/utility/Uuid.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tavren {
namespace test {
namespace {

#ifdef TAVREN_SEND_PATH

const std::string kSend = TAVREN_SEND_PATH;
const std::string kListen = TAVREN_LISTEN_PATH;

class ToolsThroughRabbitMQ : public ::testing::Test {
protected:
    ToolsThroughRabbitMQ() : broker(RealBroker::rabbitmq()), watchdog(240) {}

    void SetUp() override { ASSERT_TRUE(broker.answers()) << broker.howToStart(); }

    std::vector<std::string> guest(std::vector<std::string> args) const {
        std::vector<std::string> all{"--port", std::to_string(broker.port()), "--login", "guest", "--passcode",
                                     "guest"};
        all.insert(all.end(), args.begin(), args.end());
        return all;
    }

    /** A queue no other test or run uses. */
    static std::string freshQueue(const std::string& purpose) {
        return "tavren-it-tools-" + purpose + "-" + kelvra::utility::generateUuid().substr(0, 8);
    }

    RealBroker broker;
    Watchdog watchdog;
};

TEST_F(ToolsThroughRabbitMQ, LinesSentArePrintedByTheListenerInOrder) {
    const std::string queue = freshQueue("lines");
    ToolResult sent = runTool(kSend, guest({queue}),
                              "first line\nsecond line\nGr\xC3\xBC\xC3\x9F"
                              "e\n");
    ASSERT_EQ(0, sent.status) << sent.err;
    ToolResult got = runTool(kListen, guest({"-n", "3", "-t", "30", queue}));
    EXPECT_EQ(0, got.status) << got.err;
    EXPECT_EQ("first line\nsecond line\nGr\xC3\xBC\xC3\x9F"
              "e\n",
              got.out);
    // Acknowledged: nothing is left for the next reader.
    ToolResult after = runTool(kListen, guest({"-t", "1", queue}));
    EXPECT_EQ(0, after.status) << after.err;
    EXPECT_EQ("", after.out);
}

TEST_F(ToolsThroughRabbitMQ, HeadersTravelWithTheMessage) {
    const std::string queue = freshQueue("headers");
    ToolResult sent = runTool(kSend, guest({"-H", "x-tavren-tool:yes", "--protocol", "1.1", queue, "hello"}));
    ASSERT_EQ(0, sent.status) << sent.err;
    ToolResult got = runTool(kListen, guest({"--headers", "-n", "1", "-t", "30", queue}));
    EXPECT_EQ(0, got.status) << got.err;
    EXPECT_NE(std::string::npos, got.out.find("\nx-tavren-tool:yes\n")) << got.out;
    EXPECT_NE(std::string::npos, got.out.find("\ndestination:/queue/" + queue + "\n")) << got.out;
    EXPECT_EQ("\n\nhello\n\n", got.out.substr(got.out.size() - 9)) << got.out;
}

TEST_F(ToolsThroughRabbitMQ, MessagesBeyondTheCountAndRejectedOnesStayInTheQueue) {
    const std::string queue = freshQueue("stay");
    ASSERT_EQ(0, runTool(kSend, guest({queue}), "one\ntwo\n").status);
    ToolResult first = runTool(kListen, guest({"-n", "1", "-t", "30", queue}));
    EXPECT_EQ(0, first.status) << first.err;
    EXPECT_EQ("one\n", first.out);
    ToolResult rejected = runTool(kListen, guest({"--nack", "-n", "1", "-t", "30", queue}));
    EXPECT_EQ(0, rejected.status) << rejected.err;
    EXPECT_EQ("two\n", rejected.out);
    ToolResult again = runTool(kListen, guest({"-n", "1", "-t", "30", queue}));
    EXPECT_EQ(0, again.status) << again.err;
    EXPECT_EQ("two\n", again.out);
}

TEST_F(ToolsThroughRabbitMQ, AWrongPasscodeCannotConnect) {
    ToolResult r = runTool(kSend, {"--port", std::to_string(broker.port()), "--login", "guest", "--passcode", "wrong",
                                   "--connect-timeout", "2", freshQueue("login"), "x"});
    EXPECT_EQ(3, r.status);
    EXPECT_EQ(0u,
              r.err.find("tavren-send: cannot connect to 127.0.0.1:" + std::to_string(broker.port()) + " within 2 s: "))
        << r.err;
}

// RabbitMQ's TLS port asks for a client certificate of the test CA
// (scripts/brokers/tls-certs.sh).
class ToolsThroughRabbitMQOverTls : public ToolsThroughRabbitMQ {
protected:
    void SetUp() override {
        ToolsThroughRabbitMQ::SetUp();
        ASSERT_TRUE(broker.listensForTls()) << broker.howToStartTls();
    }

    /** guest over TLS with the test CA, and the client certificate unless without it. */
    std::vector<std::string> overTls(std::vector<std::string> args, const std::string& ca = "ca.pem",
                                     bool clientCertificate = true) const {
        std::vector<std::string> all{
            "--port", std::to_string(broker.tlsPort()), "--login", "guest", "--passcode", "guest",
            "--ca",   RealBroker::certificateFile(ca)};
        if (clientCertificate) {
            for (const std::string& a : {std::string("--cert"), RealBroker::certificateFile("client.pem"),
                                         std::string("--key"), RealBroker::certificateFile("client.key")})
                all.push_back(a);
        }
        all.insert(all.end(), args.begin(), args.end());
        return all;
    }
};

TEST_F(ToolsThroughRabbitMQOverTls, LinesSentOverTlsArePrintedByTheListener) {
    const std::string queue = freshQueue("tls");
    ToolResult sent = runTool(kSend, overTls({queue}), "first over TLS\nsecond over TLS\n");
    ASSERT_EQ(0, sent.status) << sent.err;
    ToolResult got = runTool(kListen, overTls({"-n", "2", "-t", "30", queue}));
    EXPECT_EQ(0, got.status) << got.err;
    EXPECT_EQ("first over TLS\nsecond over TLS\n", got.out);
    ToolResult after = runTool(kListen, overTls({"-t", "1", queue}));
    EXPECT_EQ(0, after.status) << after.err;
    EXPECT_EQ("", after.out);
}

TEST_F(ToolsThroughRabbitMQOverTls, ABrokerCertificateOfAnotherCaCannotConnect) {
    ToolResult r = runTool(kSend, overTls({"--connect-timeout", "2", freshQueue("tls-ca"), "x"}, "other-ca.pem"));
    EXPECT_EQ(3, r.status);
    EXPECT_EQ(0u, r.err.find("tavren-send: cannot connect to 127.0.0.1:" + std::to_string(broker.tlsPort()) +
                             " within 2 s: "))
        << r.err;
    EXPECT_NE(std::string::npos, r.err.find("certificate verify failed")) << r.err;
}

TEST_F(ToolsThroughRabbitMQOverTls, WithoutAClientCertificateTheListenerCannotConnect) {
    ToolResult r =
        runTool(kListen, overTls({"--connect-timeout", "2", "-t", "5", freshQueue("tls-nocert")}, "ca.pem", false));
    EXPECT_EQ(3, r.status);
    EXPECT_EQ(0u, r.err.find("tavren-listen: cannot connect to 127.0.0.1:" + std::to_string(broker.tlsPort()) +
                             " within 2 s: "))
        << r.err;
}

#else

TEST(ToolsThroughRabbitMQ, NeedsTheTools) { GTEST_SKIP() << "built without the tools (TAVREN_BUILD_TOOLS=OFF)"; }

#endif

} // namespace
} // namespace test
} // namespace tavren
