// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_FRAMERESULT_H
#define TAVREN_INTERNAL_FRAMERESULT_H

#include "frames/ServerFrame.h"

#include <kelvra/SharedPtr.h>
#include <kelvra/threads/CondVar.h>

#include <string>

namespace tavren {
namespace internal {

/**
 * The slot in which a caller waits for the RECEIPT or ERROR that answers a
 * frame it sent. The caller owns it (on its stack) and waits under the
 * engine lock; the listen thread fills it and signals the condition.
 */
class FrameResult {
public:
    /** cond is the condition the listen thread signals; not owned. */
    explicit FrameResult(kelvra::threads::CondVar* cond);
    ~FrameResult();
    FrameResult(const FrameResult&) = delete;
    FrameResult& operator=(const FrameResult&) = delete;

    /** Holds frame in place of the earlier answer. Does not signal. */
    void setResultFrame(kelvra::SharedPtr<ServerFrame> frame);

    /** True when the answer is an ERROR frame. */
    bool isError() const;
    /** The answer's "message" header; "" when it has none (or there is no answer). */
    std::string getShortDescription() const;
    /** The answer's body; "" when there is no answer. */
    const char* getDescription() const;

    /** True once an answer has been set. */
    bool hasResult() const { return !frame.isNull(); }

    /**
     * Marks the slot as given up: the connection that would have carried the
     * answer is gone. A waiter that wakes up to find no answer then stops
     * waiting.
     */
    void abandon() { abandoned = true; }
    bool isAbandoned() const { return abandoned; }

    /** An ERROR came on the connection while this answer was awaited (whatever it answered). */
    void noteError() { errorSeen = true; }
    bool sawError() const { return errorSeen; }

    kelvra::threads::CondVar* condition() const { return cond; }

private:
    kelvra::threads::CondVar* cond;
    kelvra::SharedPtr<ServerFrame> frame;
    bool abandoned;
    bool errorSeen;
};

} // namespace internal
} // namespace tavren

#endif
