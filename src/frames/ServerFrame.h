// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_SERVERFRAME_H
#define TAVREN_INTERNAL_SERVERFRAME_H

#include "frames/StompFrame.h"

#include <cstddef>
#include <vector>

namespace tavren {
namespace internal {

/**
 * A frame read from the broker. It owns its body (an array allocated with
 * new[], always followed by a NUL) and frees it when destroyed.
 */
class ServerFrame : public StompFrame {
public:
    ServerFrame();
    virtual ~ServerFrame();
    ServerFrame(const ServerFrame&) = delete;
    ServerFrame& operator=(const ServerFrame&) = delete;

private:
    friend class FrameParser;
    friend class SpareFrames;
    size_t bodyCapacity_ = 0; // the size of the body's array, when known (0: its length + 1)
    // The nodes of headers_ in the order their names first came on the wire:
    // the reader of the next frame given this one expects the same order.
    std::vector<HeaderMap::iterator> order_;
};

} // namespace internal
} // namespace tavren

#endif
