// SPDX-License-Identifier: Apache-2.0
#include "frames/ClientFrame.h"
#include "frames/ReceiptFrame.h"
#include "frames/ServerFrame.h"
#include "frames/StompFrame.h"

#include "support/UuidText.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>

// Array new/delete go through malloc/free here so that the test can count how
// often a given body is released. The library's delete[] resolves to these.
namespace {
const void* watchedArray = nullptr;
int watchedArrayDeletes = 0;
bool countingArrayDeletes = false;
int arrayDeletesWhileCounting = 0;

void noteArrayDelete(void* p) {
    if (countingArrayDeletes) ++arrayDeletesWhileCounting;
    if (p && p == watchedArray) ++watchedArrayDeletes;
}
} // namespace

void* operator new[](std::size_t size) {
    void* p = std::malloc(size ? size : 1);
    if (!p) throw std::bad_alloc();
    return p;
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size ? size : 1); }
void operator delete[](void* p) noexcept {
    noteArrayDelete(p);
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    noteArrayDelete(p);
    std::free(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
    noteArrayDelete(p);
    std::free(p);
}

namespace tavren {
namespace internal {
namespace {

const char* const kFrame = "<<<<<<<<<<  FRAME >>>>>>>>>>\n";
const char* const kHdrs = "<<<<<<<<<<  HDRS >>>>>>>>>>\n";
const char* const kEndHdrs = "<<<<<<<<<<  END HDRS >>>>>>>>>>\n";
const char* const kBody = "<<<<<<<<<<  BODY >>>>>>>>>>\n";
const char* const kEndBody = "<<<<<<<<<<  END BODY >>>>>>>>>>\n";
const char* const kEndFrame = "<<<<<<<<<<  END FRAME >>>>>>>>>>\n";

// Fills the protected fields the way subclasses and the reader do.
class TestFrame : public StompFrame {
public:
    void setCommand(const std::string& c) { command_ = c; }
    void addHeader(const std::string& k, const std::string& v) { headers_[k] = v; }
    void setBody(const char* b) { body_ = b; }
};

class TestClientFrame : public ClientFrame {
public:
    explicit TestClientFrame(const std::string& c) { command_ = c; }
};

class TestServerFrame : public ServerFrame {
public:
    void takeBody(char* b) { body_ = b; }
};

class TestReceiptFrame : public ReceiptFrame {
public:
    void addHeader(const std::string& k, const std::string& v) { headers_[k] = v; }
};

using tavren::test::isUuid;

// "Command: 0x" and lower-case hex digits, alone on its line.
bool hasPointerCommandLine(const std::string& dump) {
    const std::string::size_type start = dump.find("\nCommand: 0x");
    if (start == std::string::npos) return false;
    std::string::size_type i = start + 12;
    const std::string::size_type digits = i;
    while (i < dump.size() && ((dump[i] >= '0' && dump[i] <= '9') || (dump[i] >= 'a' && dump[i] <= 'f'))) ++i;
    return i > digits && i < dump.size() && dump[i] == '\n';
}

std::string commandLine(const StompFrame& frame) {
    std::ostringstream out;
    out << "Command: " << static_cast<const void*>(&frame.command()) << "\n";
    return out.str();
}

std::string dump(const StompFrame& frame, bool* bad = nullptr) {
    std::ostringstream out;
    std::ostream& returned = (out << frame);
    EXPECT_EQ(&out, &returned);
    if (bad) *bad = out.bad();
    return out.str();
}

TEST(StompFrame, DefaultIsEmpty) {
    TestFrame frame;
    EXPECT_EQ("", frame.command());
    EXPECT_TRUE(frame.headers().empty());
    EXPECT_EQ(nullptr, frame.body());
}

TEST(StompFrame, CommandLineShowsTheAddressOfTheCommandString) {
    TestFrame frame;
    frame.setCommand("SEND");
    frame.setBody("x");
    const std::string text = dump(frame);
    EXPECT_TRUE(hasPointerCommandLine(text)) << text;
    EXPECT_NE(std::string::npos, text.find(commandLine(frame)));
    EXPECT_EQ(std::string::npos, text.find("SEND"));
}

TEST(StompFrame, DumpWithoutHeadersHasTheBannersBackToBack) {
    TestFrame frame;
    frame.setCommand("RECEIPT");
    frame.setBody("");
    bool bad = true;
    const std::string text = dump(frame, &bad);
    EXPECT_EQ(std::string(kFrame) + commandLine(frame) + kHdrs + kEndHdrs + kBody + "\n" + kEndBody + kEndFrame, text);
    EXPECT_FALSE(bad);
}

TEST(StompFrame, HeadersComeOutInNameOrder) {
    TestFrame frame;
    frame.setCommand("SEND");
    frame.addHeader("b", "2");
    frame.addHeader("a", "1");
    frame.addHeader("c", "3");
    frame.setBody("hello");

    HeaderMap::const_iterator it = frame.headers().begin();
    ASSERT_EQ(3u, frame.headers().size());
    EXPECT_EQ("a", (it++)->first);
    EXPECT_EQ("b", (it++)->first);
    EXPECT_EQ("c", (it++)->first);

    EXPECT_EQ(std::string(kFrame) + commandLine(frame) + kHdrs + "a:1\nb:2\nc:3\n" + kEndHdrs + kBody + "hello\n" +
                  kEndBody + kEndFrame,
              dump(frame));
}

TEST(StompFrame, BodyIsDumpedUpToItsFirstNul) {
    static const char body[] = {'a', 'b', '\0', 'c', 'd', '\0'};
    TestFrame frame;
    frame.setBody(body);
    EXPECT_EQ(std::string(kFrame) + commandLine(frame) + kHdrs + kEndHdrs + kBody + "ab\n" + kEndBody + kEndFrame,
              dump(frame));
}

TEST(StompFrame, NullBodyLeavesTheStreamBadAndSwallowsTheRest) {
    TestFrame frame;
    frame.setCommand("CONNECT");
    frame.addHeader("heart-beat", "0,0");
    bool bad = false;
    const std::string text = dump(frame, &bad);
    EXPECT_TRUE(bad);
    EXPECT_EQ(std::string(kFrame) + commandLine(frame) + kHdrs + "heart-beat:0,0\n" + kEndHdrs + kBody, text);
}

TEST(ClientFrame, NoReceiptRequestedGivesAnEmptyId) {
    TestClientFrame frame("SEND");
    EXPECT_EQ("", frame.getReceiptId());
    EXPECT_EQ(0u, frame.headers().count("receipt"));
}

TEST(ClientFrame, ReceiptIdIsCommandSlashUuid) {
    TestClientFrame frame("DISCONNECT");
    frame.requestReceipt();
    const std::string id = frame.getReceiptId();
    EXPECT_EQ(0u, id.rfind("DISCONNECT/", 0)) << id;
    EXPECT_TRUE(isUuid(id.substr(11))) << id;
    EXPECT_EQ((HeaderMap{{"receipt", id}}), frame.headers());
}

TEST(ClientFrame, SecondReceiptRequestReplacesTheFirst) {
    TestClientFrame frame("DISCONNECT");
    frame.requestReceipt();
    const std::string first = frame.getReceiptId();
    frame.requestReceipt();
    const std::string second = frame.getReceiptId();
    EXPECT_EQ(0u, second.rfind("DISCONNECT/", 0)) << second;
    EXPECT_NE(first, second);
    EXPECT_EQ((HeaderMap{{"receipt", second}}), frame.headers());
}

TEST(ClientFrame, ReceiptHeaderJoinsTheOtherHeaders) {
    TestClientFrame frame("SUBSCRIBE");
    frame.requestReceipt();
    EXPECT_EQ(0u, frame.getReceiptId().rfind("SUBSCRIBE/", 0));
    EXPECT_EQ(std::string("SUBSCRIBE/").size() + 36, frame.getReceiptId().size());
}

TEST(ServerFrame, NullBodyIsLeftAlone) {
    countingArrayDeletes = true;
    arrayDeletesWhileCounting = 0;
    {
        TestServerFrame frame;
        EXPECT_EQ(nullptr, frame.body());
    }
    countingArrayDeletes = false;
    EXPECT_EQ(0, arrayDeletesWhileCounting);
}

TEST(ServerFrame, BodyIsFreedExactlyOnce) {
    char* body = new char[6];
    std::memcpy(body, "hello", 6);
    watchedArray = body;
    watchedArrayDeletes = 0;
    {
        TestServerFrame* frame = new TestServerFrame;
        frame->takeBody(body);
        EXPECT_STREQ("hello", frame->body());
        StompFrame* base = frame;
        delete base; // through the base: the destructor is virtual
    }
    watchedArray = nullptr;
    EXPECT_EQ(1, watchedArrayDeletes);
}

TEST(ReceiptFrame, ReceiptIdComesFromTheHeader) {
    TestReceiptFrame frame;
    frame.addHeader("receipt-id", "SUBSCRIBE/1234");
    EXPECT_EQ("SUBSCRIBE/1234", frame.getReceiptID());
}

TEST(ReceiptFrame, MissingReceiptIdThrowsMapAt) {
    TestReceiptFrame frame;
    try {
        frame.getReceiptID();
        FAIL() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ("map::at", e.what());
    }
}

} // namespace
} // namespace internal
} // namespace tavren
