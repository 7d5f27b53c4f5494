// SPDX-License-Identifier: Apache-2.0
// Frames given back to the parser are filled again with the next frames:
// the same objects, nothing of what they held before, within the bounds
// of what is kept.
#include "frames/SpareFrames.h"
#include "transport/FrameParser.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

using tavren::HeaderMap;
using tavren::internal::FrameParser;
using tavren::internal::ServerFrame;
using tavren::internal::SpareFrames;

namespace {

std::string wire(const std::string& text) { return text + std::string(1, '\0'); }

// Parses one whole frame from wire; null unless it is complete.
ServerFrame* parseOne(FrameParser& parser, const std::string& bytes) {
    size_t used = 0;
    if (parser.parse(bytes.data(), bytes.size(), &used) != FrameParser::COMPLETE || used != bytes.size()) {
        return nullptr;
    }
    return parser.takeFrame();
}

ServerFrame* frameWith(size_t headers, size_t bodyBytes) {
    FrameParser parser;
    std::string text = "MESSAGE\n";
    for (size_t i = 0; i < headers; ++i) text += "h" + std::to_string(i) + ":v\n";
    text += "\n" + std::string(bodyBytes, 'b');
    return parseOne(parser, wire(text));
}

} // namespace

TEST(SpareFrames, AFrameGivenBackIsFilledWithTheNextAndKeepsNothingOfItsOwn) {
    FrameParser parser;
    ServerFrame* first =
        parseOne(parser, wire("MESSAGE\ndestination:/queue/a\nmessage-id:m-1\nold:gone\n\nfirst body"));
    ASSERT_NE(first, nullptr);
    const char* firstBody = first->body();
    parser.recycle(first);

    std::unique_ptr<ServerFrame> second(
        parseOne(parser, wire("MESSAGE\nmessage-id:m-2-with-a-value-longer-than-fifteen\ndestination:/queue/b\n"
                              "new:x\nnew:y\ncontent-length:3\n\nabc")));
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second.get(), first);       // the same object
    EXPECT_EQ(second->body(), firstBody); // and its body array, large enough
    EXPECT_EQ(second->command(), "MESSAGE");
    const HeaderMap expected{{"content-length", "3"},
                             {"destination", "/queue/b"},
                             {"message-id", "m-2-with-a-value-longer-than-fifteen"},
                             {"new", "y"}};
    EXPECT_EQ(second->headers(), expected);
    EXPECT_STREQ(second->body(), "abc");
}

TEST(SpareFrames, ABodyLargerThanTheArrayGivenBackGetsAnArrayOfItsOwn) {
    FrameParser parser;
    parser.recycle(parseOne(parser, wire("MESSAGE\n\nab")));
    const std::string body(300, 'z');
    std::unique_ptr<ServerFrame> sized(parseOne(parser, wire("MESSAGE\ncontent-length:300\n\n" + body)));
    ASSERT_NE(sized, nullptr);
    EXPECT_EQ(std::string(sized->body()), body);
    parser.recycle(sized.release());
    std::unique_ptr<ServerFrame> toNul(parseOne(parser, wire("MESSAGE\n\n" + body + body)));
    ASSERT_NE(toNul, nullptr);
    EXPECT_EQ(std::string(toNul->body()), body + body);
    parser.recycle(toNul.release());
    std::unique_ptr<ServerFrame> empty(parseOne(parser, wire("RECEIPT\nreceipt-id:r\n\n")));
    ASSERT_NE(empty, nullptr);
    EXPECT_STREQ(empty->body(), "");
    EXPECT_EQ(empty->headers(), (HeaderMap{{"receipt-id", "r"}}));
}

TEST(SpareFrames, AHeartBeatGivenBackServesAsAFrame) {
    FrameParser parser;
    size_t used = 0;
    ASSERT_EQ(parser.parse("\n", 1, &used), FrameParser::COMPLETE);
    ServerFrame* beat = parser.takeFrame();
    parser.recycle(beat);
    std::unique_ptr<ServerFrame> next(parseOne(parser, wire("MESSAGE\na:1\n\nx")));
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next.get(), beat);
    EXPECT_EQ(next->headers(), (HeaderMap{{"a", "1"}}));
    EXPECT_STREQ(next->body(), "x");
}

TEST(SpareFrames, AFrameGivenBackSurvivesAMalformedFrameAndAReset) {
    FrameParser parser;
    parser.recycle(parseOne(parser, wire("MESSAGE\na:1\nb:2\n\nbody")));
    const std::string broken = "MESSAGE\na:1\nno colon\n";
    size_t used = 0;
    EXPECT_EQ(parser.parse(broken.data(), broken.size(), &used), FrameParser::MALFORMED);
    parser.recycle(parseOne(parser, wire("MESSAGE\na:1\nb:2\n\nbody")));
    const std::string half = "MESSAGE\na:1\n";
    EXPECT_EQ(parser.parse(half.data(), half.size(), &used), FrameParser::INCOMPLETE);
    parser.reset();
    std::unique_ptr<ServerFrame> next(parseOne(parser, wire("MESSAGE\nc:3\n\nx")));
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next->headers(), (HeaderMap{{"c", "3"}}));
}

TEST(SpareFrames, KeepsABoundedNumberOfFramesAndNothingLarge) {
    SpareFrames spares;
    for (size_t i = 0; i < SpareFrames::kKept + 5; ++i) spares.give(frameWith(2, 10));
    for (size_t i = 0; i < SpareFrames::kKept; ++i) {
        std::unique_ptr<ServerFrame> kept(spares.take());
        ASSERT_NE(kept, nullptr) << i;
    }
    EXPECT_EQ(spares.take(), nullptr);

    spares.give(frameWith(SpareFrames::kKeptHeaders + 1, 10));
    EXPECT_EQ(spares.take(), nullptr); // too many headers: freed
    spares.give(frameWith(2, SpareFrames::kKeptBodyBytes + 1));
    std::unique_ptr<ServerFrame> withoutBody(spares.take());
    ASSERT_NE(withoutBody, nullptr);
    EXPECT_EQ(withoutBody->body(), nullptr); // its large body freed
    spares.give(nullptr);
    EXPECT_EQ(spares.take(), nullptr);
}

TEST(SpareFrames, FramesOfChangingHeadersComeOutAsAFreshParserReadsThem) {
    // Names from a small set, so frames given back share some names with the
    // next and lack others; repeated names; bodies sized and to their NUL.
    // Half the frames repeat the names of the one before in its order (as a
    // broker does), some with one name changed, one fewer or one more.
    const char* names[] = {"destination", "message-id", "subscription", "ack", "x", "content-type", "long-name-x"};
    unsigned state = 12345;
    auto next = [&state](unsigned bound) {
        state = state * 1103515245u + 12345u;
        return (state >> 8) % bound;
    };
    FrameParser recycling, fresh;
    std::vector<unsigned> order;
    for (int i = 0; i < 3000; ++i) {
        std::string text = "MESSAGE\n";
        if (next(2) == 0 || order.empty()) {
            order.assign(next(9), 0);
            for (unsigned& name : order) name = next(7);
        } else {
            const unsigned change = next(4);
            if (change == 1) order[next(static_cast<unsigned>(order.size()))] = next(7);
            if (change == 2) order.pop_back();
            if (change == 3) order.push_back(next(7));
        }
        for (unsigned name : order) {
            text += std::string(names[name]) + ":" + std::string(next(40), static_cast<char>('a' + next(26))) + "\n";
        }
        const std::string body(next(5) == 0 ? 2000 : next(120), 'q');
        if (next(2)) text += "content-length:" + std::to_string(body.size()) + "\n";
        const std::string bytes = wire(text + "\n" + body);
        ServerFrame* got = parseOne(recycling, bytes);
        std::unique_ptr<ServerFrame> want(parseOne(fresh, bytes));
        ASSERT_NE(got, nullptr) << i;
        ASSERT_NE(want, nullptr) << i;
        EXPECT_EQ(got->command(), want->command()) << i;
        EXPECT_EQ(got->headers(), want->headers()) << i;
        EXPECT_STREQ(got->body(), want->body()) << i;
        recycling.recycle(got);
        fresh.reset(); // and nothing given back
    }
}
