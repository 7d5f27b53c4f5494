// SPDX-License-Identifier: Apache-2.0
#include "frames/SpareFrames.h"

namespace tavren {
namespace internal {

SpareFrames::~SpareFrames() {
    for (ServerFrame* frame : kept) delete frame;
}

void SpareFrames::give(ServerFrame* frame) {
    if (!frame) return;
    if (frame->headers_.size() > kKeptHeaders) {
        delete frame;
        return;
    }
    if (frame->body_ && frame->bodyCapacity_ > kKeptBodyBytes) {
        delete[] frame->body_;
        frame->body_ = nullptr;
        frame->bodyCapacity_ = 0;
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (kept.size() < kKept) {
            kept.push_back(frame);
            return;
        }
    }
    delete frame;
}

ServerFrame* SpareFrames::take() {
    std::lock_guard<std::mutex> lock(mutex);
    if (kept.empty()) return nullptr;
    ServerFrame* frame = kept.back();
    kept.pop_back();
    return frame;
}

} // namespace internal
} // namespace tavren
