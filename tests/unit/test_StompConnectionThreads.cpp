// SPDX-License-Identifier: Apache-2.0
// One connection used from several threads at once, as the engine does: a
// listen thread polling without blocking while application threads write.
// Frames must never interleave on the wire. Meant to run under TSan too.
#include "transport/StompConnection.h"

#include "support/ConnectedPeer.h"
#include "support/LoopbackPeer.h"
#include "support/TestFrame.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using tavren::internal::ServerFrame;
using tavren::internal::StompConnection;
using tavren::test::LoopbackPeer;
using tavren::test::TestFrame;
using ConnectionThreads = tavren::test::ConnectedPeer;

TEST_F(ConnectionThreads, WritersAndAPollingReaderShareOneConnection) {

    const int writers = 3;
    const int perWriter = 200;
    const int incoming = 300;
    std::atomic<bool> stop{false};
    std::atomic<int> received{0};

    // The broker's side: sends MESSAGE frames in small pieces meanwhile.
    std::thread broker([&] {
        std::string all;
        for (int i = 0; i < incoming; ++i)
            all +=
                "MESSAGE\nmessage-id:" + std::to_string(i) + "\n\nbody " + std::to_string(i) + std::string("\0\n", 2);
        peer.sendSlowly(all, 97, 1);
    });

    // The listen thread's way: poll, and sleep a little when nothing is there.
    std::thread listener([&] {
        int expected = 0;
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!stop && std::chrono::steady_clock::now() < limit) {
            ServerFrame* out = nullptr;
            apr_status_t rc = connection.read(&out, false, nullptr);
            if (rc == 11) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                continue;
            }
            ASSERT_EQ(0, rc);
            std::unique_ptr<ServerFrame> frame(out);
            if (frame->command().empty()) continue;
            ASSERT_EQ(std::to_string(expected), frame->headers().at("message-id"));
            ASSERT_EQ("body " + std::to_string(expected), frame->body());
            received = ++expected;
        }
    });

    std::vector<std::thread> threads;
    for (int w = 0; w < writers; ++w)
        threads.emplace_back([&, w] {
            for (int i = 0; i < perWriter; ++i) {
                const std::string text = "writer " + std::to_string(w) + " message " + std::to_string(i);
                TestFrame frame("SEND");
                frame.header("destination", "/queue/w" + std::to_string(w)).body(text.c_str());
                ASSERT_EQ(0, connection.write(&frame, nullptr));
            }
        });

    // Every frame must arrive whole: split the stream at the frame ends.
    std::string wire;
    const size_t frameCountWanted = static_cast<size_t>(writers * perWriter);
    size_t frames = 0;
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (frames < frameCountWanted && std::chrono::steady_clock::now() < limit) {
        wire += peer.receiveAvailable(20, 200);
        frames = 0;
        for (size_t pos = wire.find(std::string("\0\n", 2)); pos != std::string::npos;
             pos = wire.find(std::string("\0\n", 2), pos + 2))
            ++frames;
    }
    for (auto& t : threads) t.join();
    broker.join();
    const auto readLimit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (received < incoming && std::chrono::steady_clock::now() < readLimit)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    stop = true;
    listener.join();

    EXPECT_EQ(incoming, received.load());
    ASSERT_EQ(frameCountWanted, frames);
    std::vector<int> next(writers, 0);
    size_t pos = 0;
    for (size_t f = 0; f < frames; ++f) {
        const size_t end = wire.find(std::string("\0\n", 2), pos);
        const std::string frame = wire.substr(pos, end - pos);
        pos = end + 2;
        ASSERT_EQ(0u, frame.find("SEND\ndestination:/queue/w")) << frame;
        const int w = frame[25] - '0';
        ASSERT_GE(w, 0);
        ASSERT_LT(w, writers);
        const std::string expected = "SEND\ndestination:/queue/w" + std::to_string(w) + "\n\nwriter " +
                                     std::to_string(w) + " message " + std::to_string(next[w]++);
        ASSERT_EQ(expected, frame) << "frames interleaved";
    }
}

TEST(ConnectionDisconnect, WhileAnotherThreadPolls) {
    for (int round = 0; round < 20; ++round) {
        LoopbackPeer peer;
        StompConnection connection;
        ASSERT_EQ(0, connection.connect("127.0.0.1", peer.port(), nullptr, nullptr));
        ASSERT_TRUE(peer.accept());
        std::atomic<bool> stop{false};
        std::thread poller([&] {
            while (!stop) {
                ServerFrame* out = nullptr;
                apr_status_t rc = connection.read(&out, false, nullptr);
                delete (rc == 0 ? out : nullptr);
                if (rc == 20011) break; // disconnected under our feet: the read says so
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        EXPECT_EQ(0, connection.disconnect());
        stop = true;
        poller.join();
        EXPECT_FALSE(connection.isConnected());
    }
}
