// SPDX-License-Identifier: Apache-2.0
// The version the library reports at run time is the one it was built as.
#include <tavren/Version.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace tavren {
namespace {

TEST(LibraryVersion, TheLibraryReportsTheVersionItWasBuiltAs) {
    EXPECT_STREQ(libraryVersion(), TAVREN_VERSION_STRING);
    char expected[32];
    std::snprintf(expected, sizeof expected, "%d.%d.%d", TAVREN_VERSION_MAJOR, TAVREN_VERSION_MINOR,
                  TAVREN_VERSION_PATCH);
    EXPECT_EQ(std::string(libraryVersion()), expected);
}

} // namespace
} // namespace tavren
