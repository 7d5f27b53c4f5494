// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_WIREFRAMES_H
#define TAVREN_TEST_WIREFRAMES_H

#include "frames/ServerFrame.h"

#include <memory>
#include <string>

namespace tavren {
namespace test {

/**
 * The frame that the library's reader makes of bytes written by a loopback
 * peer: connects a StompConnection to a LoopbackPeer, lets the peer write
 * bytes, and reads one frame in blocking mode with a 5-second time-out.
 * Fails the calling test (and returns null) if the read does not return 0.
 */
std::unique_ptr<internal::ServerFrame> frameFromWire(const std::string& bytes);

} // namespace test
} // namespace tavren

#endif
