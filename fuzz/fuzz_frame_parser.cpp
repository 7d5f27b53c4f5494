// SPDX-License-Identifier: Apache-2.0
// libFuzzer target for the frame parser. The input is split into pieces whose
// sizes come from its own bytes; the frames and results obtained piece by
// piece must be exactly those obtained from the whole input at once, and
// every body must be readable as a C string.
//
//   cmake -S . -B build-fuzz -DCMAKE_CXX_COMPILER=clang++ -DTAVREN_FUZZ=ON
//   cmake --build build-fuzz --target fuzz_frame_parser
//   build-fuzz/fuzz/fuzz_frame_parser -max_total_time=60
#include "transport/FrameParser.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

using tavren::internal::FrameParser;
using tavren::internal::ServerFrame;

namespace {

struct Outcome {
    std::vector<int> results;      // COMPLETE or MALFORMED, in order
    std::vector<std::string> dump; // command, headers and body of each frame
};

std::string describe(const ServerFrame& f) {
    std::string out = f.command() + "\n";
    for (const auto& h : f.headers()) out += h.first + ":" + h.second + "\n";
    out += f.body() ? "body:" + std::string(f.body()) : "no body";
    return out;
}

// Feeds [data, data+size) in pieces of the given sizes (cycled), collecting what comes out.
Outcome run(const uint8_t* data, size_t size, const std::vector<size_t>& pieces) {
    Outcome outcome;
    FrameParser parser;
    size_t pos = 0;
    size_t next = 0;
    while (pos < size) {
        size_t n = pieces[next++ % pieces.size()];
        if (n > size - pos) n = size - pos;
        size_t off = 0;
        while (off < n) {
            size_t used = 0;
            const FrameParser::Result r = parser.parse(reinterpret_cast<const char*>(data) + pos + off, n - off, &used);
            off += used;
            if (r == FrameParser::INCOMPLETE) {
                if (off != n) std::abort(); // INCOMPLETE takes every byte
                break;
            }
            if (used == 0) std::abort(); // a frame's end takes at least one byte
            outcome.results.push_back(r);
            if (r == FrameParser::COMPLETE) {
                std::unique_ptr<ServerFrame> f(parser.takeFrame());
                if (f->body()) (void)std::strlen(f->body());
                outcome.dump.push_back(describe(*f));
            }
        }
        pos += n;
    }
    return outcome;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    std::vector<size_t> pieces;
    for (size_t i = 0; i < 4 && i < size; ++i) pieces.push_back(1 + data[i] % 17);
    const Outcome whole = run(data, size, std::vector<size_t>{size});
    const Outcome split = run(data, size, pieces);
    if (whole.results != split.results || whole.dump != split.dump) std::abort();
    return 0;
}
