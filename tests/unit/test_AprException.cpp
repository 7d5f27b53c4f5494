// SPDX-License-Identifier: Apache-2.0
#include "transport/AprException.h"

#include <gtest/gtest.h>

#include <apr_errno.h>

#include <cstring>
#include <string>

using tavren::internal::AprException;

namespace {

std::string aprText(apr_status_t status) {
    char buffer[512];
    apr_strerror(status, buffer, sizeof buffer);
    return buffer;
}

} // namespace

TEST(AprException, CarriesTheStatusAndItsText) {
    AprException e(20011);
    EXPECT_EQ(20011, e.apr_reason());
    EXPECT_EQ(aprText(20011), e.what());
    EXPECT_FALSE(std::string(e.what()).empty());
}

TEST(AprException, SystemStatusesUseTheSystemText) {
    AprException e(111);
    EXPECT_EQ(111, e.apr_reason());
    EXPECT_STREQ(std::strerror(111), e.what());
}

TEST(AprException, TextIsTheRuntimeTextCutTo79Characters) {
    // Every status of the runtime's ranges: what() is its text, at most 79
    // characters plus NUL (this runtime's longest text has 76).
    for (apr_status_t s = 0; s < 80000; s += (s < 1000 || (s >= 20000 && s < 21000) || s >= 70000) ? 1 : 97) {
        AprException e(s);
        ASSERT_EQ(aprText(s).substr(0, 79), e.what()) << "status " << s;
        ASSERT_LE(std::strlen(e.what()), 79u);
    }
}

TEST(AprException, IsAStdException) {
    try {
        throw AprException(APR_TIMEUP);
    } catch (const std::exception& e) {
        EXPECT_EQ(aprText(APR_TIMEUP), e.what());
    }
}
