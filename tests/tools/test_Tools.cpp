// SPDX-License-Identifier: Apache-2.0
// tavren-send and tavren-listen as an operator runs them: the built binaries
// against the scripted broker, checking the frames it receives, what the
// tools print and their exit status.

#include "support/FakeBroker.h"
#include "support/ToolProcess.h"
#include "support/Watchdog.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace tavren {
namespace test {
namespace {

const std::string kSend = TAVREN_SEND_PATH;
const std::string kListen = TAVREN_LISTEN_PATH;

std::string header(const RecordedFrame& frame, const std::string& name) {
    auto it = frame.headers.find(name);
    return it == frame.headers.end() ? "(none)" : it->second;
}

std::string receiptFrame(const std::string& id) { return "RECEIPT\nreceipt-id:" + id + "\n\n" + std::string(1, '\0'); }

class Tools : public ::testing::Test {
protected:
    Tools() : watchdog(100) {}

    std::vector<std::string> at(std::vector<std::string> args) const {
        std::vector<std::string> all{"--port", std::to_string(broker.port())};
        all.insert(all.end(), args.begin(), args.end());
        return all;
    }

    /** Waits for the count-th SEND and answers the receipt it asks for. */
    /** Waits for count SEND frames and answers each with its RECEIPT; returns the last. */
    RecordedFrame confirmSend(size_t count) {
        EXPECT_TRUE(broker.waitForFrames("SEND", count, 10000));
        const std::vector<RecordedFrame> sends = broker.framesWithCommand("SEND");
        if (sends.size() < count) return RecordedFrame();
        for (size_t i = 0; i < count; ++i) EXPECT_TRUE(broker.sendRaw(receiptFrame(header(sends[i], "receipt"))));
        return sends[count - 1];
    }

    /** Frames of command, each as "header=value" of name. */
    std::vector<std::string> values(const std::string& command, const std::string& name) const {
        std::vector<std::string> result;
        for (const RecordedFrame& f : broker.framesWithCommand(command)) result.push_back(header(f, name));
        return result;
    }

    /** A port nobody listens on. */
    int closedPort() {
        broker.refuseConnections();
        return broker.port();
    }

    FakeBroker broker;
    Watchdog watchdog;
};

// --- tavren-send --------------------------------------------------------

TEST_F(Tools, SendHelpPrintsTheUsageAndExitsWithZero) {
    ToolResult r = runTool(kSend, {"--help"});
    EXPECT_EQ(0, r.status);
    EXPECT_EQ(0u, r.out.find("Usage: tavren-send [OPTIONS] QUEUE [TEXT]\n")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("--connect-timeout SECS")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("Exit status:")) << r.out;
    EXPECT_EQ("", r.err);
    EXPECT_EQ(0, runTool(kSend, {"-h"}).status);
}

TEST_F(Tools, SendRefusesWrongArgumentsWithExitTwoAndSaysWhy) {
    const std::string file = ::testing::TempDir() + "tavren-send-args.txt";
    std::ofstream(file) << "x";
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "no QUEUE given"},
        {{"q", "a", "b"}, "too many arguments (put a TEXT with spaces in quotes)"},
        {{"--port", "x", "q", "t"}, "--port must be a whole number from 1 to 65535, not 'x'"},
        {{"--port", "70000", "q", "t"}, "--port must be a whole number from 1 to 65535, not '70000'"},
        {{"--bogus", "q", "t"}, "unknown option --bogus"},
        {{"q", "t", "--port"}, "option --port needs a value"},
        {{"-H", "novalue", "q", "t"}, "--header must be NAME:VALUE, not 'novalue'"},
        {{"-H", ":v", "q", "t"}, "--header must be NAME:VALUE, not ':v'"},
        {{"--protocol", "2.0", "q", "t"}, "--protocol must be 1.0, 1.1 or 1.2, not '2.0'"},
        {{"--heart-beat", "5", "q", "t"}, "--heart-beat must be CX,CY (milliseconds), not '5'"},
        {{"--heart-beat", "5,x", "q", "t"}, "--heart-beat CY must be a whole number from 0 to 86400000, not 'x'"},
        {{"--connect-timeout", "0", "q", "t"}, "--connect-timeout must be a number of seconds above 0, not '0'"},
        {{"-t", "soon", "q", "t"}, "--timeout must be a number of seconds above 0, not 'soon'"},
        {{"-f", "/nonexistent/tavren", "q"}, "cannot read /nonexistent/tavren: No such file or directory"},
        {{"-f", file, "q", "text"}, "give either TEXT or --file, not both"},
        {{"/queue/"}, "QUEUE must not be empty"},
    };
    for (const auto& c : cases) {
        ToolResult r = runTool(kSend, at(c.first));
        EXPECT_EQ(2, r.status) << c.second;
        EXPECT_EQ("tavren-send: " + c.second + "\nTry 'tavren-send --help'.\n", r.err);
        EXPECT_EQ("", r.out);
    }
    EXPECT_EQ(0, broker.connectionCount()) << "a wrong argument must not reach the broker";
    std::remove(file.c_str());
}

TEST_F(Tools, SendSendsTheTextWithItsHeadersAndWaitsForTheReceipt) {
    auto run = startTool(kSend, at({"--login", "guest", "--passcode", "secret", "--heart-beat", "100,200", "-H",
                                    "x-a:1", "--header", "x-b:two:parts", "/queue/orders", "two apples"}));
    const RecordedFrame send = confirmSend(1);
    ToolResult r = run.get();
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", r.out);
    EXPECT_EQ("", r.err) << "the library's log stays off the terminal without -v";

    const std::vector<RecordedFrame> connects = broker.framesWithCommand("CONNECT");
    ASSERT_EQ(1u, connects.size());
    EXPECT_EQ("1.2", header(connects[0], "accept-version"));
    EXPECT_EQ("guest", header(connects[0], "login"));
    EXPECT_EQ("secret", header(connects[0], "passcode"));
    EXPECT_EQ("100,200", header(connects[0], "heart-beat"));

    EXPECT_EQ("SEND", send.command);
    EXPECT_EQ("/queue/orders", header(send, "destination"));
    EXPECT_EQ("text/plain", header(send, "content-type"));
    EXPECT_EQ("10", header(send, "content-length"));
    EXPECT_EQ("1", header(send, "x-a"));
    EXPECT_EQ("two:parts", header(send, "x-b"));
    EXPECT_EQ("outbox/1", header(send, "receipt"));
    EXPECT_EQ("true", header(send, "persistent"));
    EXPECT_EQ(38u, header(send, "tavren-id").size()) << header(send, "tavren-id");
    EXPECT_EQ("two apples", send.body);
    EXPECT_EQ(1u, broker.framesWithCommand("SEND").size());
}

TEST_F(Tools, SendSendsEachLineOfStandardInputInOrder) {
    auto run = startTool(kSend, at({"--protocol", "1.1", "lines"}), "one\ntwo\n\nfour with spaces\nfive");
    confirmSend(5);
    ToolResult r = run.get();
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", r.err);
    EXPECT_EQ(std::vector<std::string>({"1.1"}), values("CONNECT", "accept-version"));
    std::vector<std::string> bodies;
    for (const RecordedFrame& f : broker.framesWithCommand("SEND")) bodies.push_back(f.body);
    EXPECT_EQ(std::vector<std::string>({"one", "two", "", "four with spaces", "five"}), bodies);
    // Every message asks for a receipt of its own.
    std::vector<std::string> receipts = values("SEND", "receipt");
    std::sort(receipts.begin(), receipts.end());
    EXPECT_EQ(receipts.end(), std::unique(receipts.begin(), receipts.end()));
}

TEST_F(Tools, SendSendsAFilesContentAsOneMessage) {
    const std::string file = ::testing::TempDir() + "tavren-send-file.txt";
    std::ofstream(file) << "line 1\nline 2\n\xC3\xA4\n";
    auto run = startTool(kSend, at({"-f", file, "q"}));
    const RecordedFrame send = confirmSend(1);
    ToolResult r = run.get();
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("line 1\nline 2\n\xC3\xA4\n", send.body);
    EXPECT_EQ(1u, broker.framesWithCommand("SEND").size());
    std::remove(file.c_str());
}

TEST_F(Tools, SendFailsWithFiveWhenTheBrokerDoesNotConfirm) {
    ToolResult r = runTool(kSend, at({"-t", "0.5", "q", "hello"}));
    EXPECT_EQ(5, r.status);
    EXPECT_EQ("tavren-send: the broker did not confirm 1 message within 0.5 s\n", r.err);
    EXPECT_EQ(1u, broker.framesWithCommand("SEND").size());
}

TEST_F(Tools, SendFailsWithFiveWhenTheBrokerRefusesTheMessage) {
    auto run = startTool(kSend, at({"q", "hello"}));
    ASSERT_TRUE(broker.waitForFrames("SEND", 1, 10000));
    const std::string receipt = header(broker.framesWithCommand("SEND")[0], "receipt");
    broker.sendRaw("ERROR\nmessage:no such queue\nreceipt-id:" + receipt + "\n\n" + std::string(1, '\0'));
    ToolResult r = run.get();
    EXPECT_EQ(5, r.status);
    EXPECT_EQ("tavren-send: the broker refused the message: no such queue\n", r.err);
}

TEST_F(Tools, SendFailsWithFiveWhenTheConnectionIsLost) {
    auto run = startTool(kSend, at({"-t", "1", "q", "hello"}));
    ASSERT_TRUE(broker.waitForFrames("SEND", 1, 10000));
    broker.refuseConnections();
    broker.dropConnection();
    ToolResult r = run.get();
    EXPECT_EQ(5, r.status);
    EXPECT_EQ(0u, r.err.find("tavren-send: the connection was lost while sending message 1: ")) << r.err;
}

TEST_F(Tools, SendGivesUpOnAnUnreachableBrokerAfterItsConnectTimeout) {
    const int port = closedPort();
    ToolResult r = runTool(kSend, {"--port", std::to_string(port), "--connect-timeout", "1", "q", "hello"});
    EXPECT_EQ(3, r.status);
    EXPECT_EQ("tavren-send: cannot connect to 127.0.0.1:" + std::to_string(port) +
                  " within 1 s: The connection was refused.\n",
              r.err);
    EXPECT_LT(r.seconds, 4.0);
}

TEST_F(Tools, SendPrintsTheLibrarysLogOnStandardErrorWithVerbose) {
    auto run = startTool(kSend, at({"-v", "q", "hello"}));
    confirmSend(1);
    ToolResult r = run.get();
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("", r.out);
    EXPECT_NE(std::string::npos, r.err.find("[tavren] Attempting to connect...\n[tavren] Connected.\n")) << r.err;
}

TEST_F(Tools, SendSendsAgainWhatALostConnectionDidNotConfirm) {
    auto run = startTool(kSend, at({"q", "hello"}));
    ASSERT_TRUE(broker.waitForFrames("SEND", 1, 10000));
    broker.dropConnection();
    ASSERT_TRUE(broker.waitForFrames("SEND", 2, 10000));
    const std::vector<RecordedFrame> sends = broker.framesWithCommand("SEND");
    EXPECT_EQ(header(sends[0], "tavren-id"), header(sends[1], "tavren-id"));
    EXPECT_TRUE(broker.sendRaw(receiptFrame(header(sends[1], "receipt"))));
    ToolResult r = run.get();
    EXPECT_EQ(0, r.status) << r.err;
}

TEST_F(Tools, SendKeepsWhatItCouldNotDeliverInItsOutboxForTheNextRun) {
    const std::string file = ::testing::TempDir() + "tavren-send-outbox.db";
    std::remove(file.c_str());
    const int port = closedPort();
    ToolResult first = runTool(kSend, {"--port", std::to_string(port), "--connect-timeout", "0.5", "-t", "0.5",
                                       "--outbox", file, "q", "first"});
    EXPECT_EQ(6, first.status) << first.err;
    EXPECT_NE(std::string::npos, first.err.find("tavren-send: 1 message not confirmed within 0.5 s; kept in " + file +
                                                " for the next run\n"))
        << first.err;

    ASSERT_TRUE(broker.acceptConnections());
    auto run = startTool(kSend, at({"--outbox", file, "q", "second"}));
    confirmSend(2);
    ToolResult second = run.get();
    EXPECT_EQ(0, second.status) << second.err;
    std::vector<std::string> bodies;
    for (const RecordedFrame& f : broker.framesWithCommand("SEND")) bodies.push_back(f.body);
    EXPECT_EQ(std::vector<std::string>({"first", "second"}), bodies);
    for (const char* suffix : {"", "-wal", "-shm"}) std::remove((file + suffix).c_str());
}

TEST_F(Tools, TheConnectTimeoutBoundsTheWholeFirstAttempt) {
    // A broker that takes the connection and never answers CONNECT.
    broker.setConnectReply(FakeBroker::ConnectReply::Silence);
    ToolResult r = runTool(kSend, at({"--connect-timeout", "1", "q", "hello"}));
    EXPECT_EQ(3, r.status) << r.err;
    EXPECT_EQ(0u,
              r.err.find("tavren-send: cannot connect to 127.0.0.1:" + std::to_string(broker.port()) + " within 1 s: "))
        << r.err;
    // The library's own wait for CONNECTED is 3 s; the tool gives up before it.
    EXPECT_LT(r.seconds, 2.5);
}

// --- tavren-listen ------------------------------------------------------

TEST_F(Tools, ListenHelpPrintsTheUsageAndExitsWithZero) {
    ToolResult r = runTool(kListen, {"--help"});
    EXPECT_EQ(0, r.status);
    EXPECT_EQ(0u, r.out.find("Usage: tavren-listen [OPTIONS] QUEUE\n")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("--nack")) << r.out;
    EXPECT_EQ("", r.err);
}

TEST_F(Tools, ListenRefusesWrongArgumentsWithExitTwoAndSaysWhy) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "no QUEUE given"},
        {{"q", "r"}, "too many arguments"},
        {{"-n", "0", "q"}, "--count must be a whole number from 1 to 1000000000, not '0'"},
        {{"-n", "many", "q"}, "--count must be a whole number from 1 to 1000000000, not 'many'"},
        {{"-t", "-1", "q"}, "--timeout must be a number of seconds above 0, not '-1'"},
        {{"--ack", "q"}, "unknown option --ack"},
        {{"q", "-n"}, "option -n needs a value"},
    };
    for (const auto& c : cases) {
        ToolResult r = runTool(kListen, at(c.first));
        EXPECT_EQ(2, r.status) << c.second;
        EXPECT_EQ("tavren-listen: " + c.second + "\nTry 'tavren-listen --help'.\n", r.err);
        EXPECT_EQ("", r.out);
    }
    EXPECT_EQ(0, broker.connectionCount());
}

TEST_F(Tools, ListenPrintsEveryMessageInOrderAndAcknowledgesEach) {
    auto run = startTool(kListen, at({"-n", "3", "-t", "30", "q"}));
    ASSERT_TRUE(broker.waitForSubscription("/queue/q", 10000));
    for (const char* body : {"first", "second with spaces", "th\xC3\xAErd"})
        ASSERT_TRUE(broker.pushMessage("/queue/q", body));
    ToolResult r = run.get();
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("first\nsecond with spaces\nth\xC3\xAErd\n", r.out);
    EXPECT_EQ("", r.err);
    // Each ACK names its message.
    EXPECT_EQ(std::vector<std::string>({"msg-1", "msg-2", "msg-3"}), values("ACK", "id"));
    EXPECT_TRUE(broker.framesWithCommand("NACK").empty());
}

TEST_F(Tools, ListenPrintsTheHeadersOnRequest) {
    auto run = startTool(kListen, at({"--headers", "-n", "1", "q"}));
    ASSERT_TRUE(broker.waitForSubscription("/queue/q", 10000));
    const std::string subscription = header(broker.framesWithCommand("SUBSCRIBE")[0], "id");
    ASSERT_TRUE(broker.pushMessage("/queue/q", "body", {{"x-note", "a:b"}}));
    ToolResult r = run.get();
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("ack:ack-1\n"
              "content-length:4\n"
              "destination:/queue/q\n"
              "message-id:msg-1\n"
              "subscription:" +
                  subscription +
                  "\n"
                  "x-note:a:b\n"
                  "\n"
                  "body\n"
                  "\n",
              r.out);
}

TEST_F(Tools, ListenRejectsEachMessageWithNack) {
    auto run = startTool(kListen, at({"--nack", "-n", "2", "q"}));
    ASSERT_TRUE(broker.waitForSubscription("/queue/q", 10000));
    ASSERT_TRUE(broker.pushMessage("/queue/q", "a"));
    ASSERT_TRUE(broker.pushMessage("/queue/q", "b"));
    ToolResult r = run.get();
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("a\nb\n", r.out);
    EXPECT_EQ(std::vector<std::string>({"msg-1", "msg-2"}), values("NACK", "id"));
    EXPECT_TRUE(broker.framesWithCommand("ACK").empty());
}

TEST_F(Tools, ListenLeavesMessagesBeyondItsCountUnacknowledged) {
    auto run = startTool(kListen, at({"-n", "1", "q"}));
    ASSERT_TRUE(broker.waitForSubscription("/queue/q", 10000));
    ASSERT_TRUE(broker.pushMessage("/queue/q", "wanted"));
    ASSERT_TRUE(broker.pushMessage("/queue/q", "left for the next reader"));
    ToolResult r = run.get();
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("wanted\n", r.out);
    EXPECT_EQ(std::vector<std::string>({"msg-1"}), values("ACK", "id"));
    EXPECT_TRUE(broker.framesWithCommand("NACK").empty());
}

TEST_F(Tools, ListenExitsWithFourWhenFewerMessagesCameBeforeTheTimeout) {
    auto run = startTool(kListen, at({"-n", "2", "-t", "1.5", "q"}));
    ASSERT_TRUE(broker.waitForSubscription("/queue/q", 10000));
    ASSERT_TRUE(broker.pushMessage("/queue/q", "only one"));
    ToolResult r = run.get();
    EXPECT_EQ(4, r.status);
    EXPECT_EQ("only one\n", r.out);
    EXPECT_EQ("tavren-listen: 1 of 2 messages before the time-out\n", r.err);
    EXPECT_EQ(std::vector<std::string>({"msg-1"}), values("ACK", "id"));
}

TEST_F(Tools, ListenWithoutCountListensUntilTheTimeoutAndExitsWithZero) {
    ToolResult r = runTool(kListen, at({"-t", "0.5", "q"}));
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", r.out);
    EXPECT_EQ("", r.err);
    EXPECT_EQ(std::vector<std::string>({"/queue/q"}), values("SUBSCRIBE", "destination"));
}

TEST_F(Tools, ListenExitsWithOneWhenTheBrokerRefusesTheSubscription) {
    broker.setSubscribeReply(FakeBroker::ReceiptReply::Error);
    broker.setReceiptError("not allowed", "");
    ToolResult r = runTool(kListen, at({"-n", "1", "-t", "5", "q"}));
    EXPECT_EQ(1, r.status);
    EXPECT_EQ(0u, r.err.find("tavren-listen: the broker refused the subscription to /queue/q: ")) << r.err;
    EXPECT_EQ("", r.out);
}

TEST_F(Tools, ListenGivesUpOnAnUnreachableBrokerAfterItsConnectTimeout) {
    const int port = closedPort();
    ToolResult r = runTool(kListen, {"--port", std::to_string(port), "--connect-timeout", "0.5", "q"});
    EXPECT_EQ(3, r.status);
    EXPECT_EQ("tavren-listen: cannot connect to 127.0.0.1:" + std::to_string(port) +
                  " within 0.5 s: The connection was refused.\n",
              r.err);
    EXPECT_LT(r.seconds, 3.5);
}

// --- TLS options (both tools) --------------------------------------------

TEST_F(Tools, HelpOfBothToolsShowsTheTlsOptions) {
    for (const std::string& tool : {kSend, kListen}) {
        ToolResult r = runTool(tool, {"--help"});
        EXPECT_EQ(0, r.status);
        for (const char* option : {"      --tls ", "      --ca FILE ", "      --cert FILE ", "      --key FILE "})
            EXPECT_NE(std::string::npos, r.out.find(option)) << tool << " lacks " << option << "\n" << r.out;
    }
}

TEST_F(Tools, TlsOptionsThatCannotWorkAreRefusedWithExitTwo) {
    const std::string file = ::testing::TempDir() + "tavren-tools-tls.pem";
    std::ofstream(file) << "not used";
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--cert", file}, "--cert and --key go together"},
        {{"--key", file}, "--cert and --key go together"},
        {{"--tls", "--key", file}, "--cert and --key go together"},
        {{"--ca", ""}, "--ca must not be empty"},
        {{"--ca", "/nonexistent/ca.pem"}, "cannot read /nonexistent/ca.pem: No such file or directory"},
        {{"--cert", file, "--key", "/nonexistent/client.key"},
         "cannot read /nonexistent/client.key: No such file or directory"},
        {{"--ca"}, "option --ca needs a value"},
    };
    for (const std::string& tool : {kSend, kListen}) {
        const std::string name = tool == kSend ? "tavren-send" : "tavren-listen";
        for (const auto& c : cases) {
            std::vector<std::string> args{"q"};
            if (tool == kSend) args.push_back("t");
            if (c.first.size() == 1) { // an option without its value: last on the line
                args.insert(args.end(), c.first.begin(), c.first.end());
            } else {
                args.insert(args.begin(), c.first.begin(), c.first.end());
            }
            ToolResult r = runTool(tool, at(args));
            EXPECT_EQ(2, r.status) << name << ": " << c.second;
            EXPECT_EQ(name + ": " + c.second + "\nTry '" + name + " --help'.\n", r.err);
            EXPECT_EQ("", r.out);
        }
    }
    EXPECT_EQ(0, broker.connectionCount()) << "a wrong argument must not reach the broker";
    std::remove(file.c_str());
}

TEST_F(Tools, SendWithTlsSendsNoPlainFrameToABrokerWithoutTls) {
    // The scripted broker speaks plain STOMP only: the handshake cannot
    // succeed, and no CONNECT may go out in the clear meanwhile.
    ToolResult r = runTool(kSend, at({"--tls", "--connect-timeout", "2", "q", "hello"}));
    EXPECT_EQ(3, r.status) << r.err;
    EXPECT_EQ(0u,
              r.err.find("tavren-send: cannot connect to 127.0.0.1:" + std::to_string(broker.port()) + " within 2 s: "))
        << r.err;
    EXPECT_LT(r.seconds, 12.0);
    EXPECT_GE(broker.connectionCount(), 1);
    EXPECT_TRUE(broker.framesWithCommand("CONNECT").empty());
    EXPECT_TRUE(broker.framesWithCommand("SEND").empty());
}

} // namespace
} // namespace test
} // namespace tavren
