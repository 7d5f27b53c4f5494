// SPDX-License-Identifier: Apache-2.0
#include <kelvra/utility/Version.h>

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace kelvra {
namespace utility {
namespace {

std::string printed(const Version& v) {
    std::ostringstream out;
    std::ostream& returned = (out << v);
    EXPECT_EQ(&out, &returned);
    return out.str();
}

TEST(Version, FromStrings) {
    EXPECT_EQ("1.0", printed(Version("1.0")));
    EXPECT_EQ("1.1", printed(Version("1.1")));
    EXPECT_EQ("1.2", printed(Version("1.2")));
    EXPECT_EQ("5.18.3", printed(Version("5.18.3")));
    EXPECT_EQ("1.2", printed(Version(std::string("1.2"))));
}

TEST(Version, SurroundingBlanksAreIgnored) {
    EXPECT_EQ(Version("1.2"), Version("1.2 "));
    EXPECT_EQ(Version("1.2"), Version(" 1.2"));
    EXPECT_EQ("1.2", printed(Version("1.2 ")));
    EXPECT_EQ("5.18.3", printed(Version(std::string("5.18.3 "))));
}

TEST(Version, FromIntegers) {
    EXPECT_EQ("0", printed(Version(0)));
    EXPECT_EQ("1.0", printed(Version(10)));
    EXPECT_EQ("1.1", printed(Version(11)));
    EXPECT_EQ("1.2", printed(Version(12)));
    EXPECT_EQ(Version("1.0"), Version(10));
    EXPECT_EQ(Version("1.1"), Version(11));
    EXPECT_EQ(Version("1.2"), Version(12));
}

TEST(Version, DefaultIsZero) {
    EXPECT_EQ(Version(0), Version());
    EXPECT_EQ("0", printed(Version()));
}

TEST(Version, UnparsableTextIsZero) {
    EXPECT_EQ(Version(0), Version(""));
    EXPECT_EQ(Version(0), Version("abc"));
    EXPECT_EQ(Version(0), Version(".5"));
    EXPECT_EQ(Version(0), Version("v1.2"));
    EXPECT_EQ(Version(0), Version(static_cast<const char*>(nullptr)));
    EXPECT_EQ("0", printed(Version("abc")));
}

TEST(Version, ReadsUpToTheFirstForeignCharacter) {
    EXPECT_EQ(Version("3.10.8"), Version("3.10.8-rc1"));
    EXPECT_EQ(Version("1"), Version("1."));
}

TEST(Version, Comparisons) {
    EXPECT_TRUE(Version("1.0") < Version("1.1"));
    EXPECT_TRUE(Version("1.1") < Version("1.2"));
    EXPECT_TRUE(Version(0) < Version("1.0"));
    EXPECT_FALSE(Version("1.2") < Version("1.2"));
    EXPECT_FALSE(Version("1.2") < Version("1.1"));
    EXPECT_TRUE(Version("1.2") >= Version("1.2"));
    EXPECT_TRUE(Version("1.3") >= Version("1.2"));
    EXPECT_FALSE(Version("1.1") >= Version("1.2"));
    EXPECT_TRUE(Version("1.9") < Version("1.10"));
    EXPECT_TRUE(Version("1.0") < Version("1.0.1"));
    EXPECT_TRUE(Version("1") == Version("1.0"));
    EXPECT_FALSE(Version(11) == Version(12));
    EXPECT_TRUE(Version(11) != Version(12));
}

} // namespace
} // namespace utility
} // namespace kelvra
