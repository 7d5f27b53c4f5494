// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_STOMPFRAME_H
#define TAVREN_INTERNAL_STOMPFRAME_H

#include <tavren/HeaderMap.h>

#include <ostream>
#include <string>

namespace tavren {
namespace internal {

class FrameParser;
class SpareFrames;

/**
 * A STOMP frame: a command word, headers in bytewise name order, and an
 * optional NUL-terminated body. StompFrame never frees the body; ServerFrame
 * does.
 */
class StompFrame {
public:
    StompFrame();
    virtual ~StompFrame();

    const std::string& command() const { return command_; }
    const HeaderMap& headers() const { return headers_; }
    /** The body as a C string, or null when the frame has none. */
    char const* body() const { return body_; }

protected:
    // Subclasses and the frame reader fill these directly.
    friend class FrameParser;
    friend class SpareFrames;
    std::string command_;
    HeaderMap headers_;
    char const* body_;
};

/**
 * The frame dump written into log messages. The "Command: " line shows the
 * address of the command string, not its text, and a frame without a body
 * leaves the stream in the bad state after the BODY banner (as inserting a
 * null C string does); callers that go on using the stream must clear it.
 */
std::ostream& operator<<(std::ostream& os, StompFrame const& frame);

} // namespace internal
} // namespace tavren

#endif
