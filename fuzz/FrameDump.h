// SPDX-License-Identifier: Apache-2.0
// Shared by the fuzz targets: checks what FrameParser.h promises of every
// frame it completes, and turns a frame into one string (command, headers,
// every byte of the body), so that frames that came different ways can be
// compared.
#ifndef TAVREN_FUZZ_FRAMEDUMP_H
#define TAVREN_FUZZ_FRAMEDUMP_H

#include "frames/ServerFrame.h"

#include <apr_strings.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

// A broken promise: says which, and aborts (libFuzzer saves the input).
#define FUZZ_CHECK(condition, what)                                                                                    \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            std::fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", what, __FILE__, __LINE__);                         \
            std::abort();                                                                                              \
        }                                                                                                              \
    } while (0)

namespace tavren {
namespace fuzz {

/**
 * False without a "content-length" header; otherwise true, with *length the
 * body length it announces as the parser reads it (apr_atoi64, cut to 32 bits).
 */
inline bool announcedLength(const HeaderMap& headers, int32_t* length) {
    const HeaderMap::const_iterator it = headers.find("content-length");
    if (it == headers.end()) return false;
    *length = static_cast<int32_t>(static_cast<uint64_t>(apr_atoi64(it->second.c_str())));
    return true;
}

/** Command, headers and body as one string; a null body differs from an empty one. */
inline std::string dump(const std::string& command, const HeaderMap& headers, const char* body, size_t bodySize) {
    std::string out = command;
    out += '\n';
    for (const auto& h : headers) {
        out += h.first;
        out += ':';
        out += h.second;
        out += '\n';
    }
    if (body) {
        out += "body:";
        out.append(body, bodySize);
    } else {
        out += "no body";
    }
    return out;
}

/**
 * Checks a completed frame: a heart-beat has no header and no body; any
 * other frame has a body followed by a NUL (after exactly the announced
 * bytes when there is a content-length); no line holds a line feed or a NUL,
 * no header name a colon. Returns the frame's dump.
 */
inline std::string checkedDump(const internal::ServerFrame& f) {
    const std::string& command = f.command();
    if (command.empty()) {
        FUZZ_CHECK(f.headers().empty() && !f.body(), "a heart-beat has neither headers nor body");
        return dump(command, f.headers(), nullptr, 0);
    }
    FUZZ_CHECK(command.find('\n') == std::string::npos && command.find('\0') == std::string::npos,
               "no line feed or NUL in the command");
    for (const auto& h : f.headers()) {
        FUZZ_CHECK(h.first.find_first_of(std::string(":\n\0", 3)) == std::string::npos,
                   "no colon, line feed or NUL in a header name");
        FUZZ_CHECK(h.second.find_first_of(std::string("\n\0", 2)) == std::string::npos,
                   "no line feed or NUL in a header value");
    }
    FUZZ_CHECK(f.body() != nullptr, "a frame that is not a heart-beat has a body");
    int32_t announced = 0;
    size_t size;
    if (announcedLength(f.headers(), &announced)) {
        FUZZ_CHECK(announced >= 0, "a negative content-length never completes a frame");
        size = static_cast<size_t>(announced);
        FUZZ_CHECK(f.body()[size] == '\0', "a sized body is followed by a NUL");
    } else {
        size = std::strlen(f.body());
    }
    return dump(command, f.headers(), f.body(), size);
}

} // namespace fuzz
} // namespace tavren

#endif
