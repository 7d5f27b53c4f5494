// SPDX-License-Identifier: Apache-2.0
#include "client/FrameResult.h"

namespace tavren {
namespace internal {

FrameResult::FrameResult(kelvra::threads::CondVar* c) : cond(c), abandoned(false), errorSeen(false) {}

FrameResult::~FrameResult() {}

void FrameResult::setResultFrame(kelvra::SharedPtr<ServerFrame> f) { frame = f; }

// The readers below guard against a missing answer: a waiter that was woken
// without one must never read through a null frame.

bool FrameResult::isError() const { return hasResult() && frame->command() == "ERROR"; }

std::string FrameResult::getShortDescription() const {
    if (!hasResult()) return "";
    try {
        return frame->headers().at("message");
    } catch (...) {
        return "";
    }
}

const char* FrameResult::getDescription() const {
    if (!hasResult() || frame->body() == nullptr) return "";
    return frame->body();
}

} // namespace internal
} // namespace tavren
