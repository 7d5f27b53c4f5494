// SPDX-License-Identifier: Apache-2.0
// libFuzzer target for the frame parser. The input is parsed three ways:
// whole, in pieces whose sizes come from its first bytes, and by a slow
// byte-by-byte reading of the rules in FrameParser.h. The three must agree
// on every result (COMPLETE or MALFORMED), the offset at which it came, and
// every frame (command, headers, every body byte); every frame must keep the
// promises checked by checkedDump(). All of that is done twice: without
// limits, and with a line and a body limit taken from the input's fifth and
// sixth bytes (small, so that inputs pass them).
//
// scripts/fuzz.sh builds and runs it on a copy of fuzz/corpus/fuzz_frame_parser/;
// build-fuzz/fuzz/fuzz_frame_parser FILE replays one input.
#include "FrameDump.h"
#include "transport/FrameParser.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

using tavren::HeaderMap;
using tavren::fuzz::announcedLength;
using tavren::fuzz::checkedDump;
using tavren::fuzz::dump;
using tavren::internal::FrameParser;
using tavren::internal::ServerFrame;

namespace {

struct Outcome {
    std::vector<int> results;      // COMPLETE or MALFORMED, in order
    std::vector<size_t> ends;      // the input offset right after each result
    std::vector<std::string> dump; // each frame
    bool operator==(const Outcome& o) const { return results == o.results && ends == o.ends && dump == o.dump; }
};

struct Limits {
    size_t line, body; // 0: none
};

// Feeds [data, data+size) in pieces of the given sizes (cycled), collecting what comes out.
Outcome run(const uint8_t* data, size_t size, const std::vector<size_t>& pieces, Limits limits) {
    Outcome outcome;
    FrameParser parser;
    parser.setLimits(limits.line, limits.body);
    size_t pos = 0;
    size_t next = 0;
    while (pos < size) {
        size_t n = pieces[next++ % pieces.size()];
        if (n > size - pos) n = size - pos;
        size_t off = 0;
        while (off < n) {
            size_t used = 0;
            const FrameParser::Result r = parser.parse(reinterpret_cast<const char*>(data) + pos + off, n - off, &used);
            FUZZ_CHECK(used <= n - off, "the parser takes no more than it is given");
            off += used;
            if (r == FrameParser::INCOMPLETE) {
                FUZZ_CHECK(off == n, "INCOMPLETE takes every byte");
                break;
            }
            FUZZ_CHECK(used > 0, "a frame's end takes at least one byte");
            FUZZ_CHECK(!parser.inFrame(), "no frame is in progress after a result");
            outcome.results.push_back(r);
            outcome.ends.push_back(pos + off);
            if (r == FrameParser::COMPLETE) {
                std::unique_ptr<ServerFrame> f(parser.takeFrame());
                FUZZ_CHECK(f != nullptr, "COMPLETE leaves a frame to take");
                outcome.dump.push_back(checkedDump(*f));
            } else {
                FUZZ_CHECK(parser.takeFrame() == nullptr, "MALFORMED leaves no frame");
            }
        }
        pos += n;
    }
    return outcome;
}

// The rules of FrameParser.h read the slow way, on the whole input.
class Model {
public:
    Model(const uint8_t* data, size_t size, Limits limits)
        : p(reinterpret_cast<const char*>(data)), size(size), limits(limits), pos(0) {}

    Outcome run() {
        while (pos < size) {
            if (!frame()) break; // the rest is a frame that has not ended
        }
        return outcome;
    }

private:
    enum Line { LINE, BAD, MORE };

    // One line from pos: LINE (pos past its line feed), BAD (a NUL in it,
    // or a byte past the line limit; pos past that byte) or MORE (the input
    // ends first).
    Line line(std::string* text) {
        for (size_t i = pos; i < size; ++i) {
            if (p[i] == '\0') {
                pos = i + 1;
                return BAD;
            }
            if (p[i] == '\n') {
                text->assign(p + pos, i - pos);
                pos = i + 1;
                return LINE;
            }
            if (limits.line && i - pos == limits.line) {
                pos = i + 1;
                return BAD;
            }
        }
        return MORE;
    }

    void malformed() {
        outcome.results.push_back(FrameParser::MALFORMED);
        outcome.ends.push_back(pos);
    }

    void complete(const std::string& dumped) {
        outcome.results.push_back(FrameParser::COMPLETE);
        outcome.ends.push_back(pos);
        outcome.dump.push_back(dumped);
    }

    // One frame from pos; false when the input ends inside it.
    bool frame() {
        std::string command;
        Line l = line(&command);
        if (l == MORE) return false;
        if (l == BAD) {
            malformed();
            return true;
        }
        HeaderMap headers;
        if (command.empty()) { // a heart-beat
            complete(dump(command, headers, nullptr, 0));
            return true;
        }
        for (;;) {
            std::string header;
            l = line(&header);
            if (l == MORE) return false;
            if (l == BAD) {
                malformed();
                return true;
            }
            if (header.empty()) break;
            const size_t colon = header.find(':');
            if (colon == std::string::npos) {
                malformed();
                return true;
            }
            headers[header.substr(0, colon)] = header.substr(colon + 1);
        }
        int32_t announced = 0;
        if (announcedLength(headers, &announced)) {
            if (announced < 0) { // no body byte is taken
                malformed();
                return true;
            }
            const size_t n = static_cast<size_t>(announced);
            if (limits.body && n > limits.body) { // refused before any body byte
                malformed();
                return true;
            }
            if (size - pos <= n) return false; // the body or its NUL is still to come
            const std::string body(p + pos, n);
            const bool ended = p[pos + n] == '\0';
            pos += n + 1;
            if (ended)
                complete(dump(command, headers, body.data(), body.size()));
            else
                malformed();
            return true;
        }
        size_t n = 0;
        for (;; ++n) {
            if (pos + n == size) return false; // the body goes on
            if (p[pos + n] == '\0') break;
            if (limits.body && n == limits.body) { // the byte past the body limit
                pos += n + 1;
                malformed();
                return true;
            }
        }
        const std::string body(p + pos, n);
        pos += n + 1;
        complete(dump(command, headers, body.data(), body.size()));
        return true;
    }

    const char* p;
    size_t size;
    Limits limits;
    size_t pos;
    Outcome outcome;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    std::vector<size_t> pieces;
    for (size_t i = 0; i < 4 && i < size; ++i) pieces.push_back(1 + data[i] % 17);
    const Limits none{0, 0};
    const Outcome whole = run(data, size, std::vector<size_t>{size}, none);
    const Outcome split = run(data, size, pieces, none);
    FUZZ_CHECK(whole == split, "the same frames whether the input comes whole or in pieces");
    FUZZ_CHECK(whole == Model(data, size, none).run(), "the frames that the rules in FrameParser.h give");

    // A line limit of 1 to 32 bytes and a body limit of 1 to 125, each
    // none (0) in one case of eight.
    const size_t line = size > 4 && data[4] % 8 ? 1 + data[4] / 8 : 0;
    const size_t body = size > 5 && data[5] % 8 ? 1 + data[5] / 8 * 4 : 0;
    const Limits limits{line, body};
    const Outcome wholeLimited = run(data, size, std::vector<size_t>{size}, limits);
    const Outcome splitLimited = run(data, size, pieces, limits);
    FUZZ_CHECK(wholeLimited == splitLimited, "with limits, the same frames whether the input comes whole or in pieces");
    FUZZ_CHECK(wholeLimited == Model(data, size, limits).run(), "with limits, the frames the rules give");
    return 0;
}
