// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_SPAREFRAMES_H
#define TAVREN_INTERNAL_SPAREFRAMES_H

#include "frames/ServerFrame.h"

#include <cstddef>
#include <mutex>
#include <vector>

namespace tavren {
namespace internal {

/**
 * Frames their readers are done with, kept for the next frames read: a
 * frame's header nodes, their strings and its body array are filled again
 * instead of freed and allocated once per message. At most kKept frames are
 * kept (the answers of one pool write, which come back together), each with
 * at most kKeptHeaders headers and a body array of at most kKeptBodyBytes; a
 * frame beyond those is freed as before. What is kept is memory the heap
 * held anyway while those frames were read (about 60 kB for 64 messages of
 * 100 bytes from RabbitMQ), and no more than that. Frames are given back on
 * any thread and taken by the reader.
 */
class SpareFrames {
public:
    static const size_t kKept = 64;
    static const size_t kKeptHeaders = 16;
    static const size_t kKeptBodyBytes = 1024;

    SpareFrames() {}
    ~SpareFrames();
    SpareFrames(const SpareFrames&) = delete;
    SpareFrames& operator=(const SpareFrames&) = delete;

    /** Keeps frame for a later take(), or deletes it. */
    void give(ServerFrame* frame);
    /** A frame given back (its headers and body still those it had), or null when none is kept. */
    ServerFrame* take();

private:
    std::mutex mutex;
    std::vector<ServerFrame*> kept;
};

} // namespace internal
} // namespace tavren

#endif
