// SPDX-License-Identifier: Apache-2.0
#include "frames/ConnectFrame.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>

namespace tavren {
namespace internal {

namespace {

// log10 truncated toward zero; anything not finite (log10 of 0 or of a
// negative number) is INT32_MIN, as a plain conversion on x86 would give.
int32_t truncatedLog10(int value) {
    const double l = std::log10(static_cast<double>(value));
    if (!std::isfinite(l)) return INT32_MIN;
    return static_cast<int32_t>(l);
}

} // namespace

ConnectFrame::ConnectFrame() {
    command_ = "CONNECT";
    headers_["heart-beat"] = "0,0";
}

ConnectFrame::~ConnectFrame() {}

void ConnectFrame::setVirtualHost(const std::string& host) { headers_["host"] = host; }

void ConnectFrame::setCredentials(const std::string& login, const std::string& passcode) {
    headers_["login"] = login;
    headers_["passcode"] = passcode;
}

void ConnectFrame::setAcceptVersions(std::vector<kelvra::utility::Version> versions) {
    std::sort(versions.begin(), versions.end());
    std::ostringstream out;
    for (std::vector<kelvra::utility::Version>::const_iterator it = versions.begin(); it != versions.end(); ++it) {
        if (it != versions.begin()) out << ",";
        out << *it;
    }
    headers_["accept-version"] = out.str();
}

void ConnectFrame::setHeartbeat(int cx, int cy) {
    // Kept as it is: the size comes from the logarithms and wraps modulo 2^32,
    // so it is only exact for positive numbers (see the header).
    const uint32_t a = static_cast<uint32_t>(truncatedLog10(cx));
    const uint32_t b = static_cast<uint32_t>(truncatedLog10(cy));
    const uint32_t size = a + b + 4u;
    std::unique_ptr<char[]> text(new char[size]);
    std::snprintf(text.get(), size, "%d,%d", cx, cy);
    headers_["heart-beat"] = text.get();
}

void ConnectFrame::setHeartbeat(const char* cx, const char* cy) {
    std::string value(cx);
    value += ",";
    value.append(cy, std::strlen(cy));
    headers_["heart-beat"] = value;
}

} // namespace internal
} // namespace tavren
