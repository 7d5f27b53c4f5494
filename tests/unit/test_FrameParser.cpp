// SPDX-License-Identifier: Apache-2.0
// The frame parser on its own: bytes in, frames out, no socket.
#include "transport/FrameParser.h"

#include "support/Bytes.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

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
