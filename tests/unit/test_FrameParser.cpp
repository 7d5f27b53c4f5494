// SPDX-License-Identifier: Apache-2.0
// The frame parser on its own: bytes in, frames out, no socket.
#include "transport/FrameParser.h"

#include "support/Bytes.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

// new and new[] go through malloc here so that the limit tests can see the
// largest block the parser asks for while they feed it. The library's
// std::string and body arrays resolve to these. (scripts/memcheck.sh runs
// valgrind with --soname-synonyms=somalloc=nouserintercepts for such tests.)
namespace {
std::atomic<bool> probing(false);
std::atomic<size_t> largestRequest(0);

void* allocate(std::size_t size) {
    if (probing.load(std::memory_order_relaxed)) {
        size_t seen = largestRequest.load(std::memory_order_relaxed);
        while (size > seen && !largestRequest.compare_exchange_weak(seen, size)) {
        }
    }
    return std::malloc(size ? size : 1);
}
} // namespace

void* operator new(std::size_t size) {
    void* p = allocate(size);
    if (!p) throw std::bad_alloc();
    return p;
}
void* operator new[](std::size_t size) {
    void* p = allocate(size);
    if (!p) throw std::bad_alloc();
    return p;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
// GCC sees the pointers of the operator new above reach free() once these
// are inlined, and cannot know that this new is malloc.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

using tavren::HeaderMap;
using tavren::internal::FrameParser;
using tavren::internal::ServerFrame;
using tavren::test::bytes;

namespace {

struct Fed {
    std::vector<std::unique_ptr<ServerFrame>> frames;
    std::vector<FrameParser::Result> ends; // COMPLETE or MALFORMED, in order
    size_t consumed = 0;
};

// Feeds data in pieces of at most `piece` bytes, collecting every frame.
Fed feed(FrameParser& parser, const std::string& data, size_t piece) {
    Fed fed;
    size_t pos = 0;
    while (pos < data.size()) {
        size_t n = std::min(piece, data.size() - pos);
        size_t off = 0;
        while (off < n) {
            size_t used = 0;
            FrameParser::Result r = parser.parse(data.data() + pos + off, n - off, &used);
            off += used;
            if (r == FrameParser::COMPLETE) {
                fed.frames.emplace_back(parser.takeFrame());
                fed.ends.push_back(r);
            } else if (r == FrameParser::MALFORMED) {
                fed.ends.push_back(r);
            } else {
                EXPECT_EQ(n, off) << "INCOMPLETE must take every byte";
                break;
            }
        }
        pos += n;
    }
    fed.consumed = pos;
    return fed;
}

} // namespace

TEST(FrameParser, LoneLineFeedIsAHeartBeat) {
    FrameParser parser;
    size_t used = 0;
    ASSERT_EQ(FrameParser::COMPLETE, parser.parse("\n", 1, &used));
    EXPECT_EQ(1u, used);
    std::unique_ptr<ServerFrame> f(parser.takeFrame());
    EXPECT_EQ("", f->command());
    EXPECT_TRUE(f->headers().empty());
    EXPECT_EQ(nullptr, f->body());
}

TEST(FrameParser, StopsRightAfterTheFrameEnd) {
    FrameParser parser;
    const std::string data = bytes("MESSAGE\ndestination:/queue/a\nmessage-id:7\n\nhello\0\nMORE");
    size_t used = 0;
    ASSERT_EQ(FrameParser::COMPLETE, parser.parse(data.data(), data.size(), &used));
    EXPECT_EQ(data.size() - 5, used) << "the line feed after the NUL stays for the next frame";
    std::unique_ptr<ServerFrame> f(parser.takeFrame());
    EXPECT_EQ("MESSAGE", f->command());
    EXPECT_EQ((HeaderMap{{"destination", "/queue/a"}, {"message-id", "7"}}), f->headers());
    EXPECT_STREQ("hello", f->body());
    ASSERT_EQ(FrameParser::COMPLETE, parser.parse(data.data() + used, 1, &used));
    std::unique_ptr<ServerFrame> hb(parser.takeFrame());
    EXPECT_EQ("", hb->command());
}

TEST(FrameParser, EverySplitPointGivesTheSameFrames) {
    const std::string data =
        bytes("MESSAGE\nk:v\n\nbody one\0\nMESSAGE\ncontent-length:5\nx:a:b\n\nab\0de\0\nRECEIPT\nreceipt-id:r\n\n\0");
    for (size_t piece = 1; piece <= data.size(); ++piece) {
        FrameParser parser;
        Fed fed = feed(parser, data, piece);
        ASSERT_EQ(5u, fed.frames.size()) << "piece " << piece;
        EXPECT_EQ("MESSAGE", fed.frames[0]->command());
        EXPECT_STREQ("body one", fed.frames[0]->body());
        EXPECT_EQ("", fed.frames[1]->command());
        EXPECT_EQ((HeaderMap{{"content-length", "5"}, {"x", "a:b"}}), fed.frames[2]->headers());
        EXPECT_EQ(0, std::string(fed.frames[2]->body(), 6).compare(std::string("ab\0de\0", 6)));
        EXPECT_EQ("", fed.frames[3]->command());
        EXPECT_EQ("RECEIPT", fed.frames[4]->command());
        EXPECT_STREQ("", fed.frames[4]->body());
        EXPECT_FALSE(parser.inFrame());
    }
}

TEST(FrameParser, NulInsideALineIsMalformedAndConsumedThroughTheNul) {
    FrameParser parser;
    const std::string data = bytes("MESS\0AGE\n");
    size_t used = 0;
    EXPECT_EQ(FrameParser::MALFORMED, parser.parse(data.data(), data.size(), &used));
    EXPECT_EQ(5u, used);
    EXPECT_FALSE(parser.inFrame());
}

TEST(FrameParser, HeaderWithoutColonIsMalformedAndConsumedThroughItsLine) {
    FrameParser parser;
    const std::string data = "SEND\nnocolon\nrest";
    size_t used = 0;
    EXPECT_EQ(FrameParser::MALFORMED, parser.parse(data.data(), data.size(), &used));
    EXPECT_EQ(13u, used);
}

TEST(FrameParser, SizedBodyWithoutItsNulIsMalformedAfterOneMoreByte) {
    FrameParser parser;
    const std::string data = bytes("M\ncontent-length:3\n\nabcd\0");
    size_t used = 0;
    EXPECT_EQ(FrameParser::MALFORMED, parser.parse(data.data(), data.size(), &used));
    EXPECT_EQ(24u, used) << "three body bytes and the byte that should have been NUL";
}

TEST(FrameParser, SizedBodyIsFollowedInMemoryByANul) {
    FrameParser parser;
    const std::string data = bytes("M\ncontent-length:3\n\nabc\0");
    size_t used = 0;
    ASSERT_EQ(FrameParser::COMPLETE, parser.parse(data.data(), data.size(), &used));
    std::unique_ptr<ServerFrame> f(parser.takeFrame());
    EXPECT_EQ(0, std::memcmp("abc", f->body(), 3));
    EXPECT_EQ('\0', f->body()[3]);
}

TEST(FrameParser, ContentLengthThatIsNoNumberCountsAsZero) {
    FrameParser parser;
    const std::string data = bytes("M\ncontent-length:abc\n\n\0");
    size_t used = 0;
    ASSERT_EQ(FrameParser::COMPLETE, parser.parse(data.data(), data.size(), &used));
    std::unique_ptr<ServerFrame> f(parser.takeFrame());
    EXPECT_STREQ("", f->body());
}

TEST(FrameParser, ContentLengthIsCutToThirtyTwoBits) {
    FrameParser parser;
    // 4294967298 = 2^32 + 2: its low 32 bits say 2.
    const std::string data = bytes("M\ncontent-length:4294967298\n\nab\0");
    size_t used = 0;
    ASSERT_EQ(FrameParser::COMPLETE, parser.parse(data.data(), data.size(), &used));
    std::unique_ptr<ServerFrame> f(parser.takeFrame());
    EXPECT_STREQ("ab", f->body());
}

TEST(FrameParser, NegativeContentLengthIsMalformed) {
    FrameParser parser;
    const std::string data = bytes("M\ncontent-length:-1\n\nab\0");
    size_t used = 0;
    EXPECT_EQ(FrameParser::MALFORMED, parser.parse(data.data(), data.size(), &used));
    EXPECT_EQ(21u, used) << "no body byte is taken";
}

TEST(FrameParser, CarriageReturnsStayInTheLine) {
    FrameParser parser;
    const std::string data = "MESSAGE\r\nk:v\r\n\r\n";
    size_t used = 0;
    EXPECT_EQ(FrameParser::MALFORMED, parser.parse(data.data(), data.size(), &used))
        << "a lone carriage return is a header without a colon";
    EXPECT_EQ(data.size(), used);
}

TEST(FrameParser, LongLinesAndBodiesAcrossPieces) {
    const std::string longValue(5000, 'v');
    const std::string longBody(300000, 'b');
    const std::string data = "MESSAGE\nk:" + longValue + "\n\n" + longBody + std::string(1, '\0');
    FrameParser parser;
    Fed fed = feed(parser, data, 1000);
    ASSERT_EQ(1u, fed.frames.size());
    EXPECT_EQ(longValue, fed.frames[0]->headers().at("k"));
    EXPECT_EQ(longBody, fed.frames[0]->body());
}

TEST(FrameParser, ResetDropsAHalfFrame) {
    FrameParser parser;
    size_t used = 0;
    EXPECT_EQ(FrameParser::INCOMPLETE, parser.parse("MESSAGE\nk:", 10, &used));
    EXPECT_TRUE(parser.inFrame());
    parser.reset();
    EXPECT_FALSE(parser.inFrame());
    ASSERT_EQ(FrameParser::COMPLETE, parser.parse("R\n\n\0", 4, &used));
    std::unique_ptr<ServerFrame> f(parser.takeFrame());
    EXPECT_EQ("R", f->command());
    EXPECT_TRUE(f->headers().empty());
}

namespace {

// A small deterministic generator, so that a failure can be replayed.
class Random {
public:
    explicit Random(unsigned seed) : state(seed * 2654435761u + 1) {}
    unsigned next(unsigned bound) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return bound ? state % bound : 0;
    }
    std::string text(size_t maxLength, bool allowNul) {
        std::string out(next(static_cast<unsigned>(maxLength) + 1), 'x');
        for (char& c : out) {
            do {
                c = static_cast<char>(next(256));
            } while (c == '\n' || (!allowNul && c == '\0'));
        }
        return out;
    }

private:
    unsigned state;
};

struct Expected {
    std::string command;
    HeaderMap headers;
    std::string body;
};

} // namespace

TEST(FrameParser, RandomFramesInRandomPiecesComeOutIntact) {
    for (unsigned seed = 1; seed <= 300; ++seed) {
        Random random(seed);
        std::vector<Expected> expected;
        std::string wire;
        const unsigned frames = 1 + random.next(8);
        for (unsigned i = 0; i < frames; ++i) {
            Expected e;
            e.command = "C" + random.text(12, false);
            const unsigned headerCount = random.next(6);
            for (unsigned h = 0; h < headerCount; ++h) {
                std::string name = random.text(10, false);
                for (char& c : name)
                    if (c == ':') c = '_';
                if (name == "content-length") name += "x";
                e.headers[name] = random.text(20, false);
            }
            const bool sized = random.next(2) == 0;
            e.body = random.text(random.next(4) == 0 ? 5000 : 40, sized);
            if (sized) e.headers["content-length"] = std::to_string(e.body.size());
            wire += e.command + "\n";
            for (const auto& h : e.headers) wire += h.first + ":" + h.second + "\n";
            wire += "\n" + e.body + std::string("\0\n", 2);
            expected.push_back(e);
        }

        FrameParser parser;
        std::vector<std::unique_ptr<ServerFrame>> got;
        size_t pos = 0;
        while (pos < wire.size()) {
            const size_t piece = std::min<size_t>(1 + random.next(300), wire.size() - pos);
            size_t off = 0;
            while (off < piece) {
                size_t used = 0;
                FrameParser::Result r = parser.parse(wire.data() + pos + off, piece - off, &used);
                ASSERT_NE(FrameParser::MALFORMED, r) << "seed " << seed;
                off += used;
                if (r == FrameParser::INCOMPLETE) break;
                std::unique_ptr<ServerFrame> f(parser.takeFrame());
                if (!f->command().empty()) got.push_back(std::move(f));
            }
            pos += piece;
        }
        ASSERT_EQ(expected.size(), got.size()) << "seed " << seed;
        for (size_t i = 0; i < expected.size(); ++i) {
            EXPECT_EQ(expected[i].command, got[i]->command()) << "seed " << seed;
            EXPECT_EQ(expected[i].headers, got[i]->headers()) << "seed " << seed;
            EXPECT_EQ(expected[i].body, std::string(got[i]->body(), expected[i].body.size())) << "seed " << seed;
            EXPECT_EQ('\0', got[i]->body()[expected[i].body.size()]) << "seed " << seed;
        }
    }
}

TEST(FrameParser, ArbitraryBytesNeverStallOrCrash) {
    // Whatever a broker sends, every feed either takes all bytes or ends a
    // frame (complete or malformed) having taken at least one.
    for (unsigned seed = 1; seed <= 300; ++seed) {
        Random random(seed);
        std::string noise = random.text(4000, true);
        for (char& c : noise)
            if (random.next(10) == 0) c = "\n:\0"[random.next(3)];
        if (random.next(2)) noise.insert(0, "MESSAGE\ncontent-length:" + std::to_string(random.next(100)) + "\n\n");
        FrameParser parser;
        size_t pos = 0;
        while (pos < noise.size()) {
            size_t used = 0;
            FrameParser::Result r = parser.parse(noise.data() + pos, noise.size() - pos, &used);
            if (r == FrameParser::INCOMPLETE) {
                ASSERT_EQ(noise.size() - pos, used) << "seed " << seed;
            } else {
                ASSERT_GT(used, 0u) << "seed " << seed;
            }
            if (r == FrameParser::COMPLETE) {
                std::unique_ptr<ServerFrame> f(parser.takeFrame());
                if (f->body()) (void)std::strlen(f->body());
            }
            pos += used;
        }
    }
}

// Limits: setLimits(maxLine, maxBody).

namespace {

struct End {
    FrameParser::Result result;
    size_t at; // the offset in the input right after the result
    bool operator==(const End& o) const { return result == o.result && at == o.at; }
};

std::ostream& operator<<(std::ostream& out, const End& end) {
    return out << (end.result == FrameParser::COMPLETE ? "COMPLETE" : "MALFORMED") << " at " << end.at;
}

// Every COMPLETE and MALFORMED of data fed in pieces of at most `piece`
// bytes, each with the offset at which it came; the frames go to *frames.
std::vector<End> endsOf(size_t maxLine, size_t maxBody, const std::string& data, size_t piece,
                        std::vector<std::unique_ptr<ServerFrame>>* frames = nullptr) {
    FrameParser parser;
    parser.setLimits(maxLine, maxBody);
    std::vector<End> ends;
    for (size_t pos = 0; pos < data.size();) {
        const size_t n = std::min(piece, data.size() - pos);
        size_t off = 0;
        while (off < n) {
            size_t used = 0;
            const FrameParser::Result r = parser.parse(data.data() + pos + off, n - off, &used);
            off += used;
            if (r == FrameParser::INCOMPLETE) {
                EXPECT_EQ(n, off) << "INCOMPLETE must take every byte";
                break;
            }
            EXPECT_GT(used, 0u);
            EXPECT_FALSE(parser.inFrame());
            ends.push_back(End{r, pos + off});
            std::unique_ptr<ServerFrame> f(parser.takeFrame());
            EXPECT_EQ(r == FrameParser::COMPLETE, f != nullptr);
            if (f && frames) frames->push_back(std::move(f));
        }
        pos += n;
    }
    return ends;
}

// The ends of data fed whole, after checking that every size of piece gives
// the same ones (a byte at a time included).
std::vector<End> endsInAnyPieces(size_t maxLine, size_t maxBody, const std::string& data) {
    const std::vector<End> whole = endsOf(maxLine, maxBody, data, data.size());
    for (size_t piece = 1; piece < data.size(); ++piece)
        EXPECT_EQ(whole, endsOf(maxLine, maxBody, data, piece)) << "pieces of " << piece;
    return whole;
}

// The largest block asked of new or new[] while probe runs.
template <typename Probe>
size_t largestRequestDuring(Probe probe) {
    largestRequest = 0;
    probing = true;
    probe();
    probing = false;
    return largestRequest;
}

const size_t KiB = 1024;
const size_t MiB = 1024 * 1024;

} // namespace

TEST(FrameParserLimits, CommandAtTheLimitIsAcceptedOnePastIsRefused) {
    std::vector<std::unique_ptr<ServerFrame>> frames;
    EXPECT_EQ((std::vector<End>{{FrameParser::COMPLETE, 11}}), endsOf(8, 0, bytes("ABCDEFGH\n\n\0"), 100, &frames));
    ASSERT_EQ(1u, frames.size());
    EXPECT_EQ("ABCDEFGH", frames[0]->command());

    FrameParser parser;
    parser.setLimits(8, 0);
    const std::string data = bytes("ABCDEFGHI\n\n\0");
    size_t used = 0;
    EXPECT_EQ(FrameParser::MALFORMED, parser.parse(data.data(), data.size(), &used));
    EXPECT_EQ(9u, used) << "the ninth byte of the line is the one past the limit";
    EXPECT_FALSE(parser.inFrame());
    EXPECT_EQ(nullptr, parser.takeFrame());
}

TEST(FrameParserLimits, HeaderLineAtTheLimitIsAcceptedOnePastIsRefused) {
    std::vector<std::unique_ptr<ServerFrame>> frames;
    EXPECT_EQ((std::vector<End>{{FrameParser::COMPLETE, 13}}), endsInAnyPieces(8, 0, bytes("M\nk:123456\n\n\0")));
    endsOf(8, 0, bytes("M\nk:123456\n\n\0"), 100, &frames);
    ASSERT_EQ(1u, frames.size());
    EXPECT_EQ((HeaderMap{{"k", "123456"}}), frames[0]->headers());

    // "M\n" and the nine bytes "k:1234567": malformed at byte 11. The parser
    // then starts afresh: the two line feeds are heart-beats, and the NUL is
    // a line holding a NUL.
    EXPECT_EQ((std::vector<End>{{FrameParser::MALFORMED, 11},
                                {FrameParser::COMPLETE, 12},
                                {FrameParser::COMPLETE, 13},
                                {FrameParser::MALFORMED, 14}}),
              endsInAnyPieces(8, 0, bytes("M\nk:1234567\n\n\0")));
}

TEST(FrameParserLimits, CarriageReturnCountsInTheLine) {
    std::vector<std::unique_ptr<ServerFrame>> frames;
    EXPECT_EQ((std::vector<End>{{FrameParser::COMPLETE, 7}}), endsOf(4, 0, bytes("ABC\r\n\n\0"), 100, &frames));
    EXPECT_EQ("ABC\r", frames.at(0)->command());
    EXPECT_EQ((std::vector<End>{{FrameParser::MALFORMED, 5}}), endsInAnyPieces(4, 0, "ABCD\r"));
}

TEST(FrameParserLimits, NulBeforeTheByteOverTheLimitIsMalformedAtTheNul) {
    EXPECT_EQ((std::vector<End>{{FrameParser::MALFORMED, 3}}), endsInAnyPieces(4, 0, bytes("AB\0CD")));
    // The byte past the limit is a NUL: malformed at that byte either way.
    EXPECT_EQ((std::vector<End>{{FrameParser::MALFORMED, 5}}), endsInAnyPieces(4, 0, bytes("ABCD\0EFG")));
}

TEST(FrameParserLimits, HeartBeatsAndEmptyBodiesPassTheSmallestLimits) {
    std::vector<std::unique_ptr<ServerFrame>> frames;
    EXPECT_EQ((std::vector<End>{{FrameParser::COMPLETE, 1}, {FrameParser::COMPLETE, 5}}),
              endsOf(1, 1, bytes("\nM\n\n\0"), 1, &frames));
    ASSERT_EQ(2u, frames.size());
    EXPECT_EQ("", frames[0]->command());
    EXPECT_EQ("M", frames[1]->command());
    EXPECT_STREQ("", frames[1]->body());
}

TEST(FrameParserLimits, LineSpreadOverManyFeedsIsRefusedAtTheSameByte) {
    // 8 bytes of command, then a header line of 2 + 100 bytes against a
    // limit of 50: refused at its 51st byte, whatever the pieces.
    const std::string data = "MESSAGE\nk:" + std::string(100, 'v') + "\n\nbody" + std::string(1, '\0');
    const std::vector<End> ends = endsInAnyPieces(50, 0, data);
    ASSERT_FALSE(ends.empty());
    EXPECT_EQ((End{FrameParser::MALFORMED, 8 + 51}), ends[0]);
}

TEST(FrameParserLimits, ParserStartsAfreshAfterALimit) {
    FrameParser parser;
    parser.setLimits(4, 4);
    size_t used = 0;
    EXPECT_EQ(FrameParser::INCOMPLETE, parser.parse("ABC", 3, &used));
    EXPECT_EQ(FrameParser::MALFORMED, parser.parse("DEF", 3, &used));
    EXPECT_EQ(2u, used) << "D is the fourth byte, E the fifth";
    EXPECT_FALSE(parser.inFrame());
    const std::string next = bytes("R\nk:v\n\nabcd\0");
    ASSERT_EQ(FrameParser::COMPLETE, parser.parse(next.data(), next.size(), &used));
    EXPECT_EQ(next.size(), used);
    std::unique_ptr<ServerFrame> f(parser.takeFrame());
    EXPECT_EQ("R", f->command());
    EXPECT_STREQ("abcd", f->body());
}

TEST(FrameParserLimits, BodyToItsNulAtTheLimitIsAcceptedOnePastIsRefused) {
    std::vector<std::unique_ptr<ServerFrame>> frames;
    EXPECT_EQ((std::vector<End>{{FrameParser::COMPLETE, 14}}), endsInAnyPieces(0, 10, bytes("M\n\n0123456789\0")));
    endsOf(0, 10, bytes("M\n\n0123456789\0"), 3, &frames);
    EXPECT_STREQ("0123456789", frames.at(0)->body());
    // "M\n\n" and the eleven body bytes "0123456789A": refused without
    // waiting for the NUL.
    EXPECT_EQ((std::vector<End>{{FrameParser::MALFORMED, 14}}), endsInAnyPieces(0, 10, "M\n\n0123456789A"));
}

TEST(FrameParserLimits, SizedBodyAtTheLimitIsAccepted) {
    const std::string data = bytes("M\ncontent-length:10\n\nabcde\0fgh\0\0");
    std::vector<std::unique_ptr<ServerFrame>> frames;
    EXPECT_EQ((std::vector<End>{{FrameParser::COMPLETE, data.size()}}), endsInAnyPieces(0, 10, data));
    endsOf(0, 10, data, 4, &frames);
    EXPECT_EQ(std::string("abcde\0fgh\0\0", 11), std::string(frames.at(0)->body(), 11));
}

TEST(FrameParserLimits, ContentLengthOverTheLimitIsRefusedAtTheEndOfTheHeaders) {
    // Refused once the headers end (a later content-length would count
    // instead), before any body byte.
    const std::string headers = "M\ncontent-length:11\nk:v\n\n";
    EXPECT_EQ((std::vector<End>{{FrameParser::MALFORMED, headers.size()}}),
              endsInAnyPieces(0, 10, headers + "0123456789A"));
    const std::string later = "M\ncontent-length:11\ncontent-length:10\n\n0123456789" + std::string(1, '\0');
    EXPECT_EQ((std::vector<End>{{FrameParser::COMPLETE, later.size()}}), endsInAnyPieces(0, 10, later));
}

TEST(FrameParserLimits, ContentLengthOfTwoGigabytesIsRefusedWithoutMemory) {
    const std::string headers = "MESSAGE\ndestination:/queue/q\nmessage-id:m-1\ncontent-length:2147483647\n\n";
    const std::string data = headers + std::string(4096, 'b');
    FrameParser parser;
    parser.setLimits(64 * KiB, 1 * MiB);
    size_t used = 0;
    FrameParser::Result result = FrameParser::INCOMPLETE;
    const size_t largest = largestRequestDuring([&] { result = parser.parse(data.data(), data.size(), &used); });
    EXPECT_EQ(FrameParser::MALFORMED, result);
    EXPECT_EQ(headers.size(), used) << "no body byte is taken";
    EXPECT_LT(largest, 1 * KiB) << "only the frame and its headers were allocated";

    // The same frame without limits gets its first piece of body array: the
    // probe sees the parser's allocations.
    FrameParser unlimited;
    const size_t first = largestRequestDuring([&] { unlimited.parse(data.data(), data.size(), &used); });
    EXPECT_EQ(data.size(), used);
    EXPECT_EQ(64 * KiB, first);
}

TEST(FrameParserLimits, EndlessLineTakesNoMemoryPastTheLimit) {
    const size_t limit = 64 * KiB;
    const std::string start = "MESSAGE\nk:";
    const std::string piece(4 * KiB, 'v');
    FrameParser parser;
    parser.setLimits(limit, 1 * MiB);
    size_t fed = 0, used = 0;
    FrameParser::Result result = FrameParser::INCOMPLETE;
    const size_t largest = largestRequestDuring([&] {
        result = parser.parse(start.data(), start.size(), &used);
        fed += used;
        // 16 MiB at most: far past the limit.
        for (int i = 0; i < 4096 && result == FrameParser::INCOMPLETE; ++i) {
            result = parser.parse(piece.data(), piece.size(), &used);
            fed += used;
        }
    });
    EXPECT_EQ(FrameParser::MALFORMED, result);
    EXPECT_EQ(8 + limit + 1, fed) << "the command line, then the header line up to its byte past the limit";
    EXPECT_LE(largest, limit + 1) << "the line's buffer (and its NUL) stop at the limit";
    EXPECT_FALSE(parser.inFrame());

    // Without a limit the same line's buffer grows with it.
    FrameParser unlimited;
    const size_t grown = largestRequestDuring([&] {
        unlimited.parse(start.data(), start.size(), &used);
        for (int i = 0; i < 256; ++i) unlimited.parse(piece.data(), piece.size(), &used);
    });
    EXPECT_GT(grown, 1 * MiB);
}

TEST(FrameParserLimits, EndlessBodyTakesNoMemoryPastTheLimit) {
    // Not a power of two: the body array's doubling has to stop short of it.
    const size_t limit = 1000 * 1000;
    const std::string start = "MESSAGE\ndestination:/queue/q\n\n";
    const std::string piece(16 * KiB, 'b');
    FrameParser parser;
    parser.setLimits(64 * KiB, limit);

    // A body of exactly the limit, in pieces as the socket gives them.
    std::string exact = start + std::string(limit, 'b') + std::string(1, '\0');
    size_t largest = largestRequestDuring([&] {
        for (size_t pos = 0; pos < exact.size();) {
            size_t used = 0;
            const size_t n = std::min(piece.size(), exact.size() - pos);
            const FrameParser::Result r = parser.parse(exact.data() + pos, n, &used);
            pos += used;
            if (r == FrameParser::COMPLETE) {
                EXPECT_EQ(exact.size(), pos);
                std::unique_ptr<ServerFrame> f(parser.takeFrame());
                EXPECT_EQ(limit, std::strlen(f->body()));
            } else {
                ASSERT_EQ(FrameParser::INCOMPLETE, r);
            }
        }
    });
    EXPECT_LE(largest, limit + 1);
    EXPECT_FALSE(parser.inFrame());

    // A body that never ends: refused at its byte past the limit.
    size_t fed = 0, used = 0;
    FrameParser::Result result = parser.parse(start.data(), start.size(), &used);
    fed += used;
    largest = largestRequestDuring([&] {
        for (int i = 0; i < 1024 && result == FrameParser::INCOMPLETE; ++i) {
            result = parser.parse(piece.data(), piece.size(), &used);
            fed += used;
        }
    });
    EXPECT_EQ(FrameParser::MALFORMED, result);
    EXPECT_EQ(start.size() + limit + 1, fed);
    EXPECT_LE(largest, limit + 1);
    EXPECT_FALSE(parser.inFrame());
}

TEST(FrameParserLimits, ZeroMeansNoLimit) {
    const std::string longLine(100 * KiB, 'v');
    const std::string longBody(300 * KiB, 'b');
    const std::string data = "MESSAGE\nk:" + longLine + "\n\n" + longBody + std::string(1, '\0') +
                             "M\ncontent-length:" + std::to_string(longBody.size()) + "\n\n" + longBody +
                             std::string(1, '\0');
    FrameParser parser;
    parser.setLimits(4, 4);
    parser.setLimits(0, 0); // back to none
    std::vector<std::unique_ptr<ServerFrame>> frames;
    size_t pos = 0;
    while (pos < data.size()) {
        size_t used = 0;
        const FrameParser::Result r = parser.parse(data.data() + pos, std::min<size_t>(1000, data.size() - pos), &used);
        ASSERT_NE(FrameParser::MALFORMED, r);
        pos += used;
        if (r == FrameParser::COMPLETE) frames.emplace_back(parser.takeFrame());
    }
    ASSERT_EQ(2u, frames.size());
    EXPECT_EQ(longLine, frames[0]->headers().at("k"));
    EXPECT_EQ(longBody, frames[0]->body());
    EXPECT_EQ(longBody, frames[1]->body());
}

TEST(FrameParserLimits, LimitsAtTheLongestLineAndBodyChangeNothing) {
    // Random frames, parsed with no limits and with limits exactly at their
    // longest line and body: the same ends, the same frames.
    for (unsigned seed = 1; seed <= 100; ++seed) {
        Random random(seed);
        std::string wire;
        std::vector<std::string> bodies;
        size_t longestLine = 0, longestBody = 1;
        const unsigned count = 1 + random.next(6);
        for (unsigned i = 0; i < count; ++i) {
            std::vector<std::string> lines{"C" + random.text(30, false)};
            const unsigned headerCount = random.next(5);
            for (unsigned h = 0; h < headerCount; ++h) {
                std::string name = random.text(10, false);
                for (char& c : name)
                    if (c == ':') c = '_';
                if (name == "content-length") name += "x";
                lines.push_back(name + ":" + random.text(40, false));
            }
            const bool sized = random.next(2) == 0;
            bodies.push_back(random.text(random.next(4) == 0 ? 3000 : 40, sized));
            if (sized) lines.push_back("content-length:" + std::to_string(bodies.back().size()));
            for (const std::string& line : lines) {
                longestLine = std::max(longestLine, line.size());
                wire += line + "\n";
            }
            longestBody = std::max(longestBody, bodies.back().size());
            wire += "\n" + bodies.back() + std::string("\0\n", 2);
        }
        const size_t piece = 1 + random.next(200);
        std::vector<std::unique_ptr<ServerFrame>> unbounded, bounded;
        const std::vector<End> unboundedEnds = endsOf(0, 0, wire, piece, &unbounded);
        ASSERT_EQ(unboundedEnds, endsOf(longestLine, longestBody, wire, piece, &bounded)) << "seed " << seed;
        ASSERT_EQ(2 * count, bounded.size()) << "seed " << seed << ": each frame and the line feed after it";
        for (size_t i = 0; i < bounded.size(); ++i) {
            EXPECT_EQ(unbounded[i]->command(), bounded[i]->command()) << "seed " << seed;
            EXPECT_EQ(unbounded[i]->headers(), bounded[i]->headers()) << "seed " << seed;
            if (i % 2) continue; // a heart-beat
            const std::string& body = bodies[i / 2];
            EXPECT_EQ(body + std::string(1, '\0'), std::string(bounded[i]->body(), body.size() + 1)) << "seed " << seed;
        }
    }
}
