// SPDX-License-Identifier: Apache-2.0
#include "frames/SendFrame.h"

#include <charconv>
#include <cstring>

namespace tavren {
namespace internal {

SendFrame::SendFrame() {
    command_ = "SEND";
    headers_["content-type"] = "text/plain";
}

SendFrame::~SendFrame() {}

void SendFrame::setDestination(const std::string& destination) { headers_["destination"] = destination; }

void SendFrame::setText(char* text) {
    // Plain decimal digits, whatever the global locale; no stream needed.
    char digits[24];
    const std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, std::strlen(text));
    headers_["content-length"].assign(digits, end.ptr);
    body_ = text;
}

void SendFrame::setAdditionalHeaders(HeaderMap* additionalHeaders) {
    if (!additionalHeaders) return;
    for (HeaderMap::const_iterator it = additionalHeaders->begin(); it != additionalHeaders->end(); ++it) {
        if (headers_.find(it->first) == headers_.end()) headers_.insert(*it);
    }
}

void SendFrame::setHeader(const std::string& name, const std::string& value) { headers_[name] = value; }

} // namespace internal
} // namespace tavren
