// SPDX-License-Identifier: Apache-2.0
#include "outbox/OutboxHeaders.h"

#include <cstdint>

namespace tavren {
namespace internal {
namespace {

void appendPart(std::string& out, const std::string& part) {
    const std::uint32_t n = static_cast<std::uint32_t>(part.size());
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<char>((n >> shift) & 0xff));
    out += part;
}

bool readPart(const std::string& blob, std::size_t& at, std::string& part) {
    if (blob.size() - at < 4) return false;
    std::uint32_t n = 0;
    for (int i = 0; i < 4; ++i) n = (n << 8) | static_cast<unsigned char>(blob[at + i]);
    at += 4;
    if (blob.size() - at < n) return false;
    part.assign(blob, at, n);
    at += n;
    return true;
}

} // namespace

std::string encodeOutboxHeaders(const HeaderMap& headers) {
    std::string out;
    for (const auto& header : headers) {
        appendPart(out, header.first);
        appendPart(out, header.second);
    }
    return out;
}

HeaderMap decodeOutboxHeaders(const std::string& blob) {
    HeaderMap headers;
    std::size_t at = 0;
    std::string name, value;
    while (at < blob.size() && readPart(blob, at, name) && readPart(blob, at, value)) headers[name] = value;
    return headers;
}

} // namespace internal
} // namespace tavren
