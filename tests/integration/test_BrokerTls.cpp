// SPDX-License-Identifier: Apache-2.0
// STOMP over TLS against the real brokers' TLS listeners (scripts/rabbitmq.sh
// and scripts/activemq.sh start them; scripts/brokers/tls-certs.sh makes the
// certificates). Both brokers ask every client for a certificate of the test
// CA. A refused handshake must be a failed connection attempt like any other:
// logged, not connected, retried, and never a hang.

#include "support/BrokerFixture.h"

#include <tavren/TlsOptions.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace tavren {
namespace test {
namespace {

const char* const kFirstTry = "ERROR: Failed to connect on first try, ";
const char* const kRetry = "ERROR: Reconnect failed with: ";

/** The broker's TLS port with 1.2, and ActiveMQ's with 1.1 too (its ACK works there, see docs/brokers.md). */
std::vector<BrokerVersion> tlsCases() {
    return {BrokerVersion{RealBroker::rabbitmq(), "1.2"}, BrokerVersion{RealBroker::activemq(), "1.2"},
            BrokerVersion{RealBroker::activemq(), "1.1"}};
}

std::string fileContent(const std::string& path) {
    std::ifstream in(path);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

/** The test certificates: right CA, client certificate and its key. */
TlsOptions mutualTls() {
    TlsOptions tls;
    tls.caFile = RealBroker::certificateFile("ca.pem");
    tls.certificateFile = RealBroker::certificateFile("client.pem");
    tls.privateKeyFile = RealBroker::certificateFile("client.key");
    return tls;
}

/** The first line that starts with prefix, or "(none)". */
std::string firstLineStartingWith(const CapturingLogger& log, const std::string& prefix) {
    for (const std::string& line : log.lines()) {
        if (line.compare(0, prefix.size(), prefix) == 0) return line;
    }
    return "(none)";
}

/** Each text as its first 20 bytes and its size, so that a failure does not print 256 KiB. */
std::vector<std::string> shortly(const std::vector<std::string>& texts) {
    std::vector<std::string> result;
    for (const std::string& t : texts) result.push_back(t.substr(0, 20) + " (" + std::to_string(t.size()) + " bytes)");
    return result;
}

std::string allLines(const CapturingLogger& log) {
    std::string all;
    for (const std::string& line : log.lines()) all += line + "\n";
    return all;
}

class BrokerTls : public BrokerTest {
protected:
    void SetUp() override {
        BrokerTest::SetUp();
        ASSERT_TRUE(broker().listensForTls()) << broker().howToStartTls();
        for (const char* name : {"ca.pem", "client.pem", "client.key", "other-ca.pem"}) {
            ASSERT_FALSE(fileContent(RealBroker::certificateFile(name)).empty())
                << RealBroker::certificateFile(name) << " is missing or unreadable; scripts/brokers/tls-certs.sh "
                << "makes it (the broker scripts run it)";
        }
    }

    /** A client of the broker's TLS port (or port) with tls, logging in as guest (or with passcode). */
    std::unique_ptr<StompClient> newTlsClient(CapturingLogger& log, const TlsOptions& tls,
                                              const std::string& passcode = "guest", int port = 0) {
        std::unique_ptr<StompClient> client = newClient(log, passcode, port ? port : broker().tlsPort());
        client->useTls(tls);
        return client;
    }

    /**
     * Opens client's connection, which must fail: not connected when
     * openConnection returns (within 15 s: the connect time-out of 5 s
     * bounds the handshake) and still not after a retry, which logs
     * "Reconnect failed with: ". Returns the first attempt's log line.
     */
    std::string expectRefused(StompClient& client, CapturingLogger& log) {
        const auto started = std::chrono::steady_clock::now();
        EXPECT_FALSE(open(client, 500));
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        EXPECT_LT(seconds, 15.0) << "openConnection took " << seconds << " s";
        EXPECT_TRUE(log.waitForPrefix(kFirstTry, 1, 1000)) << allLines(log);
        // The timer retries, and fails the same way.
        EXPECT_TRUE(log.waitForPrefix(kRetry, 1, 15000)) << allLines(log);
        EXPECT_FALSE(client.isConnected());
        EXPECT_EQ(log.count("INFO: Connected."), 0u) << allLines(log);
        client.closeConnection();
        // What the library said, for the test's report (--gtest_output=xml).
        const std::string line = firstLineStartingWith(log, kFirstTry);
        RecordProperty("first_attempt", line);
        return line;
    }
};

TEST_P(BrokerTls, MutualTlsSendsReceivesAndAcknowledges) {
    RecordingListener listener(0), later(0);
    CapturingLogger log, laterLog;
    const std::string queue = freshQueue("tls");
    // Large enough to span many TLS records in both directions.
    std::string large;
    while (large.size() < 256 * 1024) large += "tavren over TLS \xE2\x9C\x93\n";
    const std::vector<std::string> bodies = {"one", "two \xC3\xA4\xC3\xB6\xC3\xBC", large};
    {
        auto client = newTlsClient(log, mutualTls());
        ASSERT_TRUE(open(*client)) << allLines(log);
        client->listenOnQueue(queue, &listener);
        EXPECT_TRUE(log.contains("INFO: Subscribed to destination /queue/" + queue + " successfully."))
            << allLines(log);
        HeaderMap headers{{"x-tavren-tls", "yes"}};
        for (const std::string& body : bodies) client->sendToQueue(queue, body.c_str(), &headers);
        std::vector<std::string> sorted = bodies;
        std::sort(sorted.begin(), sorted.end());
        // ActiveMQ with 1.2 may hand a message twice (see ackAccepted), so
        // the wait is for every text, not for a count.
        ASSERT_TRUE(eventually([&] { return distinct(texts(listener.received())) == sorted; }, 20000))
            << "received " << ::testing::PrintToString(shortly(texts(listener.received()))) << "\n"
            << allLines(log);
        ASSERT_TRUE(listener.waitFinished(static_cast<int>(bodies.size()), 5000));
        const std::vector<Received> got = listener.received();
        for (const Received& r : got) {
            EXPECT_EQ(headerOf(r.headers, "x-tavren-tls"), "yes");
            EXPECT_EQ(headerOf(r.headers, "destination"), "/queue/" + queue);
        }
        if (ackAccepted(GetParam())) {
            EXPECT_EQ(shortly(texts(got)), shortly(sorted));
        }
        // Let the ACKs go out and the broker answer, if it does.
        usleep(1000 * 1000);
        if (ackAccepted(GetParam())) {
            EXPECT_EQ(log.countStartingWith("ERROR: "), 0u) << allLines(log);
        }
        client->closeConnection();
    }

    // Acknowledged: a later subscriber over TLS gets only a fresh message
    // (ActiveMQ with 1.2 refuses the library's ACKs and hands them out again).
    // ActiveMQ answers each refused ACK of 1.2 with an ERROR, which may come
    // before the RECEIPT of a subscription to a queue that holds messages and
    // be taken for its answer: there the later subscriber speaks 1.1, whose
    // ACKs it takes.
    auto other = newTlsClient(laterLog, mutualTls());
    other->openConnection(1000, kelvra::utility::Version(ackAccepted(GetParam()) ? version() : "1.1"));
    ASSERT_TRUE(other->isConnected()) << allLines(laterLog);
    other->listenOnQueue(queue, &later);
    other->sendToQueue(queue, "fresh", nullptr);
    std::vector<std::string> expected{"fresh"};
    if (!ackAccepted(GetParam())) expected = {"fresh", "one", "two \xC3\xA4\xC3\xB6\xC3\xBC", large};
    std::sort(expected.begin(), expected.end());
    ASSERT_TRUE(eventually([&] { return distinct(texts(later.received())) == expected; }, 20000))
        << "received " << ::testing::PrintToString(shortly(texts(later.received()))) << "\n"
        << allLines(laterLog);
    usleep(1000 * 1000); // nothing more comes
    if (ackAccepted(GetParam())) {
        EXPECT_EQ(shortly(texts(later.received())), shortly(expected));
    } else {
        EXPECT_EQ(shortly(distinct(texts(later.received()))), shortly(expected));
    }
    other->closeConnection();
}

TEST_P(BrokerTls, BrokerCertificateOfAnotherCaIsRefused) {
    CapturingLogger log;
    TlsOptions tls = mutualTls();
    tls.caFile = RealBroker::certificateFile("other-ca.pem");
    auto client = newTlsClient(log, tls);
    const std::string line = expectRefused(*client, log);
    EXPECT_NE(line.find("certificate verify failed"), std::string::npos) << allLines(log);
    EXPECT_NE(firstLineStartingWith(log, kRetry).find("certificate verify failed"), std::string::npos) << allLines(log);
}

TEST_P(BrokerTls, BrokerCertificateForAnotherNameIsRefused) {
    CapturingLogger log;
    TlsOptions tls = mutualTls();
    tls.serverName = "wrong.example";
    auto client = newTlsClient(log, tls);
    const std::string line = expectRefused(*client, log);
    EXPECT_NE(line.find("certificate verify failed"), std::string::npos) << allLines(log);
}

TEST_P(BrokerTls, TheNameLocalhostIsVerifiedAsWellAsTheAddress) {
    // The client was given 127.0.0.1 (an IP address in the certificate);
    // serverName makes it check the DNS name instead.
    CapturingLogger log;
    TlsOptions tls = mutualTls();
    tls.serverName = "localhost";
    auto client = newTlsClient(log, tls);
    EXPECT_TRUE(open(*client)) << allLines(log);
    EXPECT_EQ(log.countStartingWith("ERROR: "), 0u) << allLines(log);
    client->closeConnection();
}

TEST_P(BrokerTls, WithoutACaFileTheSystemStoreDoesNotTrustTheTestCa) {
    CapturingLogger log;
    TlsOptions tls = mutualTls();
    tls.caFile.clear();
    auto client = newTlsClient(log, tls);
    const std::string line = expectRefused(*client, log);
    EXPECT_NE(line.find("certificate verify failed"), std::string::npos) << allLines(log);
}

TEST_P(BrokerTls, WithoutVerificationAnyCertificateAndNameAreAccepted) {
    // verifyPeer = false is for tests only: the wrong CA and the wrong name pass.
    CapturingLogger log;
    TlsOptions tls = mutualTls();
    tls.caFile = RealBroker::certificateFile("other-ca.pem");
    tls.serverName = "wrong.example";
    tls.verifyPeer = false;
    auto client = newTlsClient(log, tls);
    EXPECT_TRUE(open(*client)) << allLines(log);
    client->closeConnection();
}

TEST_P(BrokerTls, WithoutAClientCertificateTheBrokerRefuses) {
    CapturingLogger log;
    TlsOptions tls;
    tls.caFile = RealBroker::certificateFile("ca.pem");
    auto client = newTlsClient(log, tls);
    const std::string line = expectRefused(*client, log);
    // The refusal comes as the broker's alert after the client's part of the
    // handshake; the line names it.
    const std::string alert = broker().isActiveMQ() ? "alert bad certificate" : "alert certificate required";
    EXPECT_NE(line.find("TLS: the connection failed: "), std::string::npos) << allLines(log);
    EXPECT_NE(line.find(alert), std::string::npos) << allLines(log);
}

TEST_P(BrokerTls, PlainClientOnTheTlsPortFailsCleanly) {
    CapturingLogger log;
    auto client = newClient(log, "guest", broker().tlsPort());
    expectRefused(*client, log);
}

TEST_P(BrokerTls, TlsClientOnThePlainPortFailsCleanly) {
    CapturingLogger log;
    auto client = newTlsClient(log, mutualTls(), "guest", broker().port());
    expectRefused(*client, log);
}

TEST_P(BrokerTls, NeitherThePasscodeNorThePrivateKeyIsEverLogged) {
    const std::string passcode = "tavren-secret-" + kelvra::utility::generateUuid().substr(0, 8);
    const std::string clientKey = RealBroker::certificateFile("client.key");
    // other-ca.key: a key that does not belong to client.pem.
    const std::string wrongKeyFile = RealBroker::certificateFile("other-ca.key");
    ASSERT_NE(fileContent(clientKey).find("PRIVATE KEY"), std::string::npos);
    ASSERT_NE(fileContent(wrongKeyFile).find("PRIVATE KEY"), std::string::npos);
    // The keys' base64 lines, each long enough not to turn up by chance.
    std::vector<std::string> keyLines;
    for (const std::string& file : {clientKey, wrongKeyFile}) {
        std::istringstream lines(fileContent(file));
        for (std::string line; std::getline(lines, line);) {
            if (line.size() >= 16 && line.find("-----") == std::string::npos) keyLines.push_back(line);
        }
    }
    ASSERT_GE(keyLines.size(), 2u);

    CapturingLogger refusedLogin, wrongKey, verbose;
    {
        // The handshake succeeds; the broker refuses the passcode.
        auto client = newTlsClient(refusedLogin, mutualTls(), passcode);
        expectRefused(*client, refusedLogin);
    }
    {
        // A key that does not belong to the certificate.
        TlsOptions tls = mutualTls();
        tls.privateKeyFile = wrongKeyFile;
        auto client = newTlsClient(wrongKey, tls, passcode);
        expectRefused(*client, wrongKey);
    }
    {
        // A connection that stands, sends and receives.
        RecordingListener listener;
        auto client = newTlsClient(verbose, mutualTls());
        ASSERT_TRUE(open(*client)) << allLines(verbose);
        const std::string queue = freshQueue("secrets");
        client->listenOnQueue(queue, &listener);
        client->sendToQueue(queue, "nothing secret", nullptr);
        EXPECT_TRUE(listener.waitFinished(1, 10000));
        usleep(500 * 1000);
        client->closeConnection();
    }
    for (const CapturingLogger* log : {&refusedLogin, &wrongKey, &verbose}) {
        for (const std::string& line : log->lines()) {
            EXPECT_EQ(line.find(passcode), std::string::npos) << line;
            EXPECT_EQ(line.find("PRIVATE KEY"), std::string::npos) << line;
            for (const std::string& keyLine : keyLines) EXPECT_EQ(line.find(keyLine), std::string::npos) << line;
        }
    }
    EXPECT_GT(refusedLogin.lines().size(), 0u);
    EXPECT_GT(wrongKey.lines().size(), 0u);
}

INSTANTIATE_TEST_SUITE_P(RealBrokers, BrokerTls, ::testing::ValuesIn(tlsCases()), caseName);

} // namespace
} // namespace test
} // namespace tavren
