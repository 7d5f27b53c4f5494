// SPDX-License-Identifier: Apache-2.0
// Losing the connection and getting it back: the listen thread's own
// reconnect, the timer's retries, waiters whose answer never comes, and the
// re-entrant paths that subscribe every listener again under the engine lock.

#include "support/EngineFixture.h"

namespace {

using tavren::HeaderMap;
using tavren::StompClient;
using tavren::test::EngineTest;
using tavren::test::FakeBroker;
using tavren::test::RecordedFrame;
using tavren::test::RecordingListener;
using tavren::test::threadCount;

using Reconnect = EngineTest;

std::vector<RecordedFrame> onConnection(const std::vector<RecordedFrame>& frames, int connection) {
    std::vector<RecordedFrame> out;
    for (const auto& f : frames)
        if (f.connection == connection) out.push_back(f);
    return out;
}

TEST_F(Reconnect, DroppedConnectionIsMadeAgainAndEveryListenerSubscribedAgain) {
    connect();
    RecordingListener a, b;
    listen("a", &a);
    listen("b", &b);
    log.clear();

    letReconnectPeriodPass();
    broker.dropConnection();
    // The listen thread reconnects at once and, still inside its own pass,
    // subscribes both queues again: each waits for a receipt that the new
    // listen thread has to deliver.
    ASSERT_TRUE(broker.waitForConnections(2));
    // The listen thread that reconnected ends once its work is done, and
    // settles its (here: no) message workers on the way out.
    ASSERT_TRUE(log.waitFor("INFO: Resolving remaining message handlers..."));
    EXPECT_EQ(
        log.lines(),
        (std::vector<std::string>{
            "ERROR: while trying to listen for messages. Error 70014: End of file found", "ERROR: Disconnected!",
            "INFO: Attempting to connect...", "INFO: Connected.", "INFO: Resuming all listeners...",
            "INFO: Re-registering listener for: /queue/a", "INFO: Registering listener on /queue/a",
            "INFO: Subscribed to destination /queue/a successfully.", "INFO: Re-registering listener for: /queue/b",
            "INFO: Registering listener on /queue/b", "INFO: Subscribed to destination /queue/b successfully.",
            "INFO: Resolving remaining message handlers..."}));
    EXPECT_EQ(onConnection(sent("SUBSCRIBE"), 2).size(), 2u);
    EXPECT_EQ(sent("CONNECT").at(1).headers, (HeaderMap{{"accept-version", "1.2"}, {"heart-beat", "0,0"}}));
    EXPECT_TRUE(client->isConnected());

    ASSERT_TRUE(broker.pushMessage("/queue/a", "after"));
    ASSERT_TRUE(a.waitEntered(1));
    ASSERT_TRUE(broker.waitForFrames("ACK", 1));
    EXPECT_EQ(sent("ACK")[0].connection, 2);
}

TEST_F(Reconnect, BrokerDownThenUpAgainIsRetriedOnTheTimer) {
    connect("1.2", 100);
    RecordingListener listener;
    listen("q", &listener);
    loseTheBroker();
    ASSERT_TRUE(log.waitFor("ERROR: Reconnect failed with: The connection was refused.", 2));
    EXPECT_FALSE(client->isConnected());
    ASSERT_TRUE(broker.acceptConnections());
    ASSERT_TRUE(broker.waitForSubscription("/queue/q"));
    EXPECT_TRUE(client->isConnected());
    ASSERT_TRUE(broker.pushMessage("/queue/q", "back"));
    ASSERT_TRUE(listener.waitEntered(1));
    ASSERT_TRUE(broker.waitForFrames("ACK", 1));
}

TEST_F(Reconnect, ManyDropsLeaveNoListenThreadBehind) {
    connect();
    RecordingListener listener;
    listen("q", &listener);
    broker.dropConnection();
    ASSERT_TRUE(broker.waitForConnections(2));
    ASSERT_TRUE(broker.waitForSubscription("/queue/q"));
    ASSERT_TRUE(broker.waitFor([] { return true; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const int threadsAfterOne = threadCount();
    for (int i = 3; i <= 8; ++i) {
        broker.dropConnection();
        ASSERT_TRUE(broker.waitForConnections(i));
        ASSERT_TRUE(broker.waitForSubscription("/queue/q"));
    }
    // The listen thread that reconnected ends once its successor runs.
    ASSERT_TRUE(broker.waitFor([&] { return threadCount() <= threadsAfterOne; }));
    ASSERT_TRUE(broker.pushMessage("/queue/q", "x"));
    ASSERT_TRUE(listener.waitEntered(1));
}

TEST_F(Reconnect, SendFailingWhileListenersAreRegisteredReconnectsOnTheCallersThread) {
    connect();
    RecordingListener listener;
    listen("q", &listener);
    // Close: the listen thread stops but the socket stays. Reset it from the
    // broker's side, so the next write fails on the caller's thread.
    client->closeConnection();
    broker.resetConnection();
    ASSERT_TRUE(broker.waitForClientClosed());
    log.clear();
    letReconnectPeriodPass();
    // A write to a reset socket may still be accepted once; the next one fails.
    client->sendToQueue("q", "lost", nullptr);
    if (!log.contains("ERROR: Disconnected!")) client->sendToQueue("q", "lost again", nullptr);
    ASSERT_TRUE(client->isConnected());
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"ERROR: Disconnected!", "INFO: Attempting to connect...",
                                                     "INFO: Connected.", "INFO: Resuming all listeners...",
                                                     "INFO: Re-registering listener for: /queue/q",
                                                     "INFO: Registering listener on /queue/q",
                                                     "INFO: Subscribed to destination /queue/q successfully."}));
    ASSERT_TRUE(broker.waitForSubscription("/queue/q"));
    ASSERT_TRUE(broker.pushMessage("/queue/q", "flows"));
    ASSERT_TRUE(listener.waitEntered(1));
}

TEST_F(Reconnect, SendWhileNeverConnectedMakesAFirstAttempt) {
    makeClient();
    client->sendToQueue("q", "early", nullptr);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"ERROR: Disconnected!", "INFO: Attempting to connect...",
                                                     "INFO: Connected.", "INFO: Resuming all listeners..."}));
    EXPECT_TRUE(client->isConnected());
    EXPECT_TRUE(sent("SEND").empty()); // the message itself is lost
}

TEST_F(Reconnect, PauseCloseAndOpenAgainSubscribesThePausedListeners) {
    connect();
    RecordingListener a, b;
    listen("a", &a);
    listen("b", &b);
    client->pauseAllListeners();
    client->closeConnection();
    log.clear();
    // The first attempt runs on this thread under the engine lock, and
    // subscribes the paused listeners from inside it.
    client->openConnection(100, kelvra::utility::Version("1.2"));
    ASSERT_TRUE(client->isConnected());
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "INFO: Attempting to connect...", "INFO: Connected.", "INFO: Resuming all listeners...",
                               "INFO: Re-registering listener for: /queue/a", "INFO: Registering listener on /queue/a",
                               "INFO: Subscribed to destination /queue/a successfully.",
                               "INFO: Re-registering listener for: /queue/b", "INFO: Registering listener on /queue/b",
                               "INFO: Subscribed to destination /queue/b successfully."}));
    EXPECT_EQ(onConnection(sent("SUBSCRIBE"), 2).size(), 2u);
    ASSERT_TRUE(broker.pushMessage("/queue/b", "resumed"));
    ASSERT_TRUE(b.waitEntered(1));
}

TEST_F(Reconnect, WaiterWhoseAnswerNeverComesIsWokenAndSubscribedLater) {
    connect();
    broker.setSubscribeReply(FakeBroker::ReceiptReply::Silence);
    RecordingListener listener;
    std::thread subscriber([&] { client->listenOnQueue("q", &listener); });
    ASSERT_TRUE(broker.waitForFrames("SUBSCRIBE", 1));
    broker.setSubscribeReply(FakeBroker::ReceiptReply::Receipt);
    broker.dropConnection();
    subscriber.join(); // returns: it was woken when the connection went
    EXPECT_TRUE(log.contains("ERROR: The broker's answer to the subscription to /queue/q never came: the "
                             "connection was lost. The listener is subscribed again when a connection stands."));
    // The new connection subscribes it with the others.
    ASSERT_TRUE(broker.waitForSubscription("/queue/q"));
    ASSERT_TRUE(broker.pushMessage("/queue/q", "finally"));
    ASSERT_TRUE(listener.waitEntered(1));
}

TEST_F(Reconnect, UnsubscribeWhoseAnswerNeverComesStillForgetsTheListener) {
    connect();
    RecordingListener listener;
    listen("q", &listener);
    broker.setUnsubscribeReply(FakeBroker::ReceiptReply::Silence);
    std::thread stopper([&] { client->stopListeningOnQueue("q"); });
    ASSERT_TRUE(broker.waitForFrames("UNSUBSCRIBE", 1));
    broker.dropConnection();
    stopper.join();
    EXPECT_TRUE(log.contains(
        "ERROR: The broker's answer to the unsubscription from /queue/q never came: the connection was lost."));
    ASSERT_TRUE(broker.waitForConnections(2));
    ASSERT_TRUE(log.waitFor("INFO: Resuming all listeners...", 2));
    EXPECT_TRUE(onConnection(sent("SUBSCRIBE"), 2).empty());
}

TEST_F(Reconnect, CloseWhileSubscribingWakesTheSubscriber) {
    connect();
    broker.setSubscribeReply(FakeBroker::ReceiptReply::Silence);
    RecordingListener listener;
    std::thread subscriber([&] { client->listenOnQueue("q", &listener); });
    ASSERT_TRUE(broker.waitForFrames("SUBSCRIBE", 1));
    client->closeConnection();
    subscriber.join();
    EXPECT_TRUE(log.waitForPrefix("ERROR: The broker's answer to the subscription to /queue/q never came"));
}

TEST_F(Reconnect, WorkersFinishingAfterTheConnectionWentAreLoggedNotAcked) {
    connect();
    RecordingListener yes(0), no(1);
    listen("yes", &yes);
    listen("no", &no);
    yes.closeGate();
    no.closeGate();
    std::string yesId, noId;
    ASSERT_TRUE(broker.pushMessage("/queue/yes", "a", {}, &yesId));
    ASSERT_TRUE(broker.pushMessage("/queue/no", "b", {}, &noId));
    ASSERT_TRUE(yes.waitEntered(1));
    ASSERT_TRUE(no.waitEntered(1));
    broker.refuseConnections();
    broker.dropConnection();
    // Let the workers finish while the listen thread handles the loss.
    ASSERT_TRUE(log.waitFor("ERROR: Disconnected!"));
    yes.openGate();
    no.openGate();
    ASSERT_TRUE(log.waitFor("INFO: Resolving remaining message handlers..."));
    ASSERT_TRUE(log.waitForPrefix("ERROR: message: ", 2));
    EXPECT_TRUE(log.contains("ERROR: message: " + yesId + " was fully processed but we are unable to ACK broker."));
    EXPECT_TRUE(log.contains("ERROR: message: " + noId + " was NOT processed but we are unable to NACK broker."));
    EXPECT_TRUE(sent("ACK").empty());
    EXPECT_TRUE(sent("NACK").empty());
}

TEST_F(Reconnect, WorkerStillRunningWhenListeningStopsIsLeftUnacknowledged) {
    connect();
    RecordingListener slow;
    listen("q", &slow);
    slow.closeGate();
    ASSERT_TRUE(broker.pushMessage("/queue/q", "slow"));
    ASSERT_TRUE(slow.waitEntered(1));
    client->closeConnection();
    EXPECT_EQ(log.lines().back(), "INFO: Resolving remaining message handlers...");
    slow.openGate();
    ASSERT_TRUE(slow.waitFinished(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(sent("ACK").empty());
    EXPECT_EQ(log.countStartingWith("ERROR: message: "), 0u);
}

TEST_F(Reconnect, CloseWhileConnectingLeavesTheTimerRunning) {
    broker.refuseConnections();
    makeClient();
    client->openConnection(100, kelvra::utility::Version("1.2"));
    client->closeConnection();
    EXPECT_EQ(log.lines().back(), "INFO: Disconnected.");
    ASSERT_TRUE(broker.acceptConnections());
    ASSERT_TRUE(log.waitFor("INFO: Connected."));
}

TEST_F(Reconnect, CloseOnANeverConnectedClientOnlyLogs) {
    makeClient();
    client->closeConnection();
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"INFO: Disconnected."}));
    EXPECT_EQ(broker.connectionCount(), 0);
}

TEST_F(Reconnect, CloseSendsNoDisconnectFrame) {
    connect();
    client->closeConnection();
    EXPECT_EQ(log.lines().back(), "INFO: Resolving remaining message handlers...");
    EXPECT_TRUE(log.contains("INFO: Disconnected."));
    client->sendToQueue("q", "still open", nullptr); // the socket was left as it was
    ASSERT_TRUE(broker.waitForFrames("SEND", 1));
    EXPECT_TRUE(sent("DISCONNECT").empty());
}

using Destroy = EngineTest;

TEST_F(Destroy, Idle) {
    makeClient();
    client.reset();
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Destroy, ConnectingWithTheTimerRunning) {
    broker.refuseConnections();
    makeClient();
    client->openConnection(20, kelvra::utility::Version("1.2"));
    ASSERT_TRUE(log.waitFor("INFO: Retrying connect...", 3));
    client.reset();
    const size_t lines = log.lines().size();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(log.lines().size(), lines); // no retry after destruction
}

TEST_F(Destroy, ConnectedWithWorkersBusy) {
    RecordingListener busy;
    connect();
    listen("q", &busy);
    busy.closeGate();
    ASSERT_TRUE(broker.pushMessage("/queue/q", "1"));
    ASSERT_TRUE(broker.pushMessage("/queue/q", "2"));
    ASSERT_TRUE(busy.waitEntered(2));
    client.reset();
    EXPECT_EQ(log.lines().back(), "INFO: Resolving remaining message handlers...");
    busy.openGate();
    ASSERT_TRUE(busy.waitFinished(2)); // the abandoned workers finish alone
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(sent("ACK").empty());
}

// A client of a broker of its own, connected and listening on "q".
struct Scene {
    Scene(int periodMs, tavren::Listener* listener)
        : client(new StompClient("127.0.0.1", broker.port(), &log, nullptr)) {
        client->openConnection(periodMs, kelvra::utility::Version("1.2"));
        client->listenOnQueue("q", listener);
    }
    FakeBroker broker;
    tavren::test::CapturingLogger log;
    std::unique_ptr<StompClient> client;
};

TEST_F(Destroy, WhileATimerRetrySucceeds) {
    // The timer thread connects and subscribes again while the application
    // destroys the client; whatever the timing, neither hangs nor crashes.
    RecordingListener listener;
    for (int round = 0; round < 12; ++round) {
        Scene scene(5, &listener);
        ASSERT_TRUE(scene.client->isConnected());
        scene.broker.refuseConnections();
        scene.broker.dropConnection();
        ASSERT_TRUE(scene.log.waitFor("INFO: Retrying connect..."));
        ASSERT_TRUE(scene.broker.acceptConnections());
        std::this_thread::sleep_for(std::chrono::milliseconds(round % 6));
        scene.client.reset();
    }
}

TEST_F(Destroy, WhileAListenThreadReconnectWaitsForReceipts) {
    RecordingListener listener;
    for (int round = 0; round < 12; ++round) {
        Scene scene(50, &listener);
        scene.broker.setSubscribeReply(FakeBroker::ReceiptReply::Silence);
        scene.broker.dropConnection();
        ASSERT_TRUE(scene.broker.waitForConnections(2));
        std::this_thread::sleep_for(std::chrono::milliseconds(round % 4));
        scene.client.reset();
    }
}

} // namespace
