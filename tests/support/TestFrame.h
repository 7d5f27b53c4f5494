// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_TESTFRAME_H
#define TAVREN_TEST_TESTFRAME_H

#include "frames/ClientFrame.h"

#include <string>

namespace tavren {
namespace test {

/** A client frame whose command, headers and body a test sets freely. */
class TestFrame : public internal::ClientFrame {
public:
    explicit TestFrame(const std::string& command) { command_ = command; }
    TestFrame& header(const std::string& name, const std::string& value) {
        headers_[name] = value;
        return *this;
    }
    TestFrame& body(char const* text) {
        body_ = text;
        return *this;
    }
};

} // namespace test
} // namespace tavren

#endif
