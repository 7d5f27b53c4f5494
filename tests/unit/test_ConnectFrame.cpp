// SPDX-License-Identifier: Apache-2.0
#include "frames/ConnectFrame.h"

#include "support/Emulation.h"

#include <kelvra/utility/Version.h>

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

namespace tavren {
namespace internal {
namespace {

using kelvra::utility::Version;

HeaderMap withHeartbeat(const std::string& value) { return HeaderMap{{"heart-beat", value}}; }

TEST(ConnectFrame, UnconfiguredFrame) {
    ConnectFrame frame;
    EXPECT_EQ("CONNECT", frame.command());
    EXPECT_EQ(withHeartbeat("0,0"), frame.headers());
    EXPECT_EQ(nullptr, frame.body());
    EXPECT_EQ("", frame.getReceiptId());
}

TEST(ConnectFrame, TextHeartbeatReplacesTheValue) {
    ConnectFrame frame;
    frame.setHeartbeat("1000", "0");
    EXPECT_EQ(withHeartbeat("1000,0"), frame.headers());
    frame.setHeartbeat("250", "5000");
    EXPECT_EQ(withHeartbeat("250,5000"), frame.headers());
}

TEST(ConnectFrame, TextHeartbeatIsCopiedVerbatim) {
    ConnectFrame frame;
    frame.setHeartbeat(" 01", "x,y ");
    EXPECT_EQ(withHeartbeat(" 01,x,y "), frame.headers());
    frame.setHeartbeat("", "");
    EXPECT_EQ(withHeartbeat(","), frame.headers());
}

TEST(ConnectFrame, EmptyCredentialsAreStillWritten) {
    ConnectFrame frame;
    frame.setCredentials("", "");
    EXPECT_EQ((HeaderMap{{"heart-beat", "0,0"}, {"login", ""}, {"passcode", ""}}), frame.headers());
}

TEST(ConnectFrame, CredentialsAreStoredUnchangedAndOverwritten) {
    ConnectFrame frame;
    frame.setCredentials("guest", "secret");
    frame.setCredentials(" admin ", "p:w");
    EXPECT_EQ((HeaderMap{{"heart-beat", "0,0"}, {"login", " admin "}, {"passcode", "p:w"}}), frame.headers());
}

TEST(ConnectFrame, VirtualHostIsStoredUnchanged) {
    ConnectFrame frame;
    frame.setVirtualHost("");
    EXPECT_EQ((HeaderMap{{"heart-beat", "0,0"}, {"host", ""}}), frame.headers());
    frame.setVirtualHost(" broker.example ");
    EXPECT_EQ((HeaderMap{{"heart-beat", "0,0"}, {"host", " broker.example "}}), frame.headers());
}

TEST(ConnectFrame, AcceptVersionsAreSortedAndJoined) {
    ConnectFrame frame;
    frame.setAcceptVersions(std::vector<Version>{Version("1.2"), Version("1.0"), Version("1.1")});
    EXPECT_EQ((HeaderMap{{"accept-version", "1.0,1.1,1.2"}, {"heart-beat", "0,0"}}), frame.headers());
}

TEST(ConnectFrame, DuplicateAcceptVersionsAreKept) {
    ConnectFrame frame;
    frame.setAcceptVersions(std::vector<Version>{Version(11), Version(11)});
    EXPECT_EQ((HeaderMap{{"accept-version", "1.1,1.1"}, {"heart-beat", "0,0"}}), frame.headers());
}

TEST(ConnectFrame, SingleAcceptVersion) {
    ConnectFrame frame;
    frame.setAcceptVersions(std::vector<Version>{Version("1.0")});
    EXPECT_EQ((HeaderMap{{"accept-version", "1.0"}, {"heart-beat", "0,0"}}), frame.headers());
    frame.setAcceptVersions(std::vector<Version>{Version(12)});
    EXPECT_EQ((HeaderMap{{"accept-version", "1.2"}, {"heart-beat", "0,0"}}), frame.headers());
}

TEST(ConnectFrame, AcceptVersionsLeaveTheCallersListAlone) {
    ConnectFrame frame;
    const std::vector<Version> versions{Version(12), Version(10)};
    frame.setAcceptVersions(versions);
    EXPECT_EQ(Version(12), versions[0]);
    EXPECT_EQ(Version(10), versions[1]);
}

TEST(ConnectFrame, AllSettersTogether) {
    ConnectFrame frame;
    frame.setAcceptVersions(std::vector<Version>{Version(12)});
    frame.setHeartbeat("0", "0");
    frame.setVirtualHost("vh");
    frame.setCredentials("u", "p");
    EXPECT_EQ((HeaderMap{{"accept-version", "1.2"},
                         {"heart-beat", "0,0"},
                         {"host", "vh"},
                         {"login", "u"},
                         {"passcode", "p"}}),
              frame.headers());
    EXPECT_EQ(nullptr, frame.body());
}

TEST(ConnectFrame, IntegerHeartbeatPositive) {
    ConnectFrame frame;
    frame.setHeartbeat(5000, 10000);
    EXPECT_EQ(withHeartbeat("5000,10000"), frame.headers());
    frame.setHeartbeat(1, 1);
    EXPECT_EQ(withHeartbeat("1,1"), frame.headers());
    frame.setHeartbeat(99, 999);
    EXPECT_EQ(withHeartbeat("99,999"), frame.headers());
}

TEST(ConnectFrame, IntegerHeartbeatZeroZero) {
    // Both logarithms are INT32_MIN; the sum wraps to 0 and the array has 4 characters.
    ConnectFrame frame;
    frame.setHeartbeat(1000, 1000);
    frame.setHeartbeat(0, 0);
    EXPECT_EQ(withHeartbeat("0,0"), frame.headers());
}

TEST(ConnectFrame, IntegerHeartbeatNineTen) {
    ConnectFrame frame;
    frame.setHeartbeat(9, 10);
    EXPECT_EQ(withHeartbeat("9,10"), frame.headers());
}

TEST(ConnectFrame, IntegerHeartbeatNegativeIsCutToFourCharacters) {
    ConnectFrame frame;
    frame.setHeartbeat(-1, -1);
    EXPECT_EQ(withHeartbeat("-1,"), frame.headers());
    frame.setHeartbeat(0, -1);
    EXPECT_EQ(withHeartbeat("0,-"), frame.headers());
    frame.setHeartbeat(-250, 0);
    EXPECT_EQ(withHeartbeat("-25"), frame.headers());
}

// 0 with a positive number asks for 2^31 + 7 bytes. Either the allocator
// refuses (std::bad_alloc, header unchanged) or the text is complete.
TEST(ConnectFrame, IntegerHeartbeatZeroWithPositiveAsksForOverTwoGiB) {
    ConnectFrame frame;
    frame.setHeartbeat("7", "8");
    bool threw = false;
    try {
        frame.setHeartbeat(0, 5000);
    } catch (const std::bad_alloc&) {
        threw = true;
    }
    if (threw)
        EXPECT_EQ(withHeartbeat("7,8"), frame.headers());
    else
        EXPECT_EQ(withHeartbeat("0,5000"), frame.headers());
}

#ifndef TAVREN_SANITIZED
// The same with an address-space limit that the allocation cannot fit in,
// in a child process. Sanitizers need a huge address space, so not there.
void setHeartbeatUnderAddressSpaceLimit() {
    long pages = 0;
    if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%ld", &pages) != 1) pages = 0;
        std::fclose(statm);
    }
    if (pages <= 0) std::_Exit(3);
    rlimit limit;
    if (getrlimit(RLIMIT_AS, &limit) != 0) std::_Exit(4);
    // What the process maps now plus 512 MiB: far below the 2 GiB asked for.
    limit.rlim_cur = static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (rlim_t(512) << 20);
    if (setrlimit(RLIMIT_AS, &limit) != 0) std::_Exit(4);

    ConnectFrame frame;
    frame.setHeartbeat("7", "8");
    try {
        frame.setHeartbeat(0, 5000);
    } catch (const std::bad_alloc&) {
        std::_Exit(frame.headers() == withHeartbeat("7,8") ? 0 : 1);
    }
    std::_Exit(2);
}

TEST(ConnectFrameDeathTest, IntegerHeartbeatZeroWithPositiveFailsWhenMemoryIsShort) {
    SKIP_UNDER_EMULATION("the death test re-executes the test binary, which the host cannot run itself, and an "
                         "address-space limit would bind qemu rather than the test");
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(setHeartbeatUnderAddressSpaceLimit(), ::testing::ExitedWithCode(0), "");
}
#endif

} // namespace
} // namespace internal
} // namespace tavren
