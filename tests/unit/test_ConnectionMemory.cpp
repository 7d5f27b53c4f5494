// SPDX-License-Identifier: Apache-2.0
// A connection lives for months: what one frame needs must not outlive it.
// 100,000 frames are read (and written) on one connection, and the process's
// memory after 10,000 is compared with its memory after 100,000.
#include "transport/StompConnection.h"

#include "support/ConnectedPeer.h"
#include "support/Emulation.h"
#include "support/Memory.h"
#include "support/TestFrame.h"

#include <gtest/gtest.h>

#include <malloc.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>

using tavren::internal::ServerFrame;
using tavren::internal::StompConnection;
using tavren::test::heapInUseKiB;
using tavren::test::residentKiB;
using tavren::test::TestFrame;

namespace {

// Frames of both kinds, a line spanning reads now and then, and heart-beats between them.
std::string frameBytes(int i) {
    std::string id = std::to_string(i);
    if (i % 3 == 0) {
        const std::string body = "sized body number " + id;
        return "MESSAGE\ncontent-length:" + std::to_string(body.size()) + "\ndestination:/queue/mem\nmessage-id:" + id +
               "\nsubscription:sub-1\n\n" + body + std::string("\0\n", 2);
    }
    return "MESSAGE\ndestination:/queue/mem\nmessage-id:" + id +
           "\nx-long:" + std::string(i % 50 == 0 ? 3000 : 40, 'v') + "\n\nplain body number " + id +
           std::string("\0\n", 2);
}

} // namespace

using ConnectionMemory = tavren::test::ConnectedPeer;

TEST_F(ConnectionMemory, ReadingManyFramesDoesNotGrowMemory) {
    SKIP_UNDER_SANITIZERS();
    SKIP_UNDER_EMULATION("resident memory includes qemu's own translation cache, which grows as code runs");

    const int total = 100000;
    std::atomic<bool> ok{true};
    std::thread sender([&] {
        std::string batch;
        for (int i = 0; i < total && ok; ++i) {
            batch += frameBytes(i);
            if (batch.size() > 64 * 1024 || i == total - 1) {
                if (!peer.send(batch)) ok = false;
                batch.clear();
            }
        }
    });

    long rss10k = 0, heap10k = 0;
    int frames = 0;
    long long timeout = 10000000;
    while (frames < total) {
        ServerFrame* out = nullptr;
        apr_status_t rc = connection.read(&out, true, &timeout);
        ASSERT_EQ(0, rc) << "after " << frames << " frames";
        std::unique_ptr<ServerFrame> frame(out);
        if (frame->command().empty()) continue; // the line feed after each frame
        ASSERT_EQ("MESSAGE", frame->command());
        ASSERT_EQ(std::to_string(frames), frame->headers().at("message-id"));
        ++frames;
        if (frames == 10000) {
            rss10k = residentKiB();
            heap10k = heapInUseKiB();
        }
    }
    sender.join();
    const long rss100k = residentKiB();
    const long heap100k = heapInUseKiB();
    std::printf("resident: %ld KiB after 10,000 frames, %ld KiB after 100,000\n", rss10k, rss100k);
    std::printf("heap in use: %ld KiB after 10,000 frames, %ld KiB after 100,000\n", heap10k, heap100k);
    EXPECT_LT(rss100k - rss10k, 256);
    EXPECT_LT(heap100k - heap10k, 64);
}

TEST_F(ConnectionMemory, WritingManyFramesDoesNotGrowMemory) {
    SKIP_UNDER_SANITIZERS();
    SKIP_UNDER_EMULATION("resident memory includes qemu's own translation cache, which grows as code runs");
    std::atomic<bool> done{false};
    std::thread drain([&] {
        while (!done) peer.discardAvailable(20, 200);
    });
    TestFrame frame("SEND");
    frame.header("destination", "/queue/mem").header("content-type", "text/plain").body("a small message body");
    long rss10k = 0, heap10k = 0;
    for (int i = 1; i <= 100000; ++i) {
        ASSERT_EQ(0, connection.write(&frame, nullptr));
        if (i == 10000) {
            rss10k = residentKiB();
            heap10k = heapInUseKiB();
        }
    }
    const long rss100k = residentKiB();
    const long heap100k = heapInUseKiB();
    done = true;
    drain.join();
    std::printf("resident: %ld KiB after 10,000 writes, %ld KiB after 100,000\n", rss10k, rss100k);
    std::printf("heap in use: %ld KiB after 10,000 writes, %ld KiB after 100,000\n", heap10k, heap100k);
    EXPECT_LT(rss100k - rss10k, 256);
    EXPECT_LT(heap100k - heap10k, 64);
}
