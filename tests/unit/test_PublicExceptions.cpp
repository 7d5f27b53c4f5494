// SPDX-License-Identifier: Apache-2.0
#include <tavren/ConnectionException.h>
#include <tavren/SystemException.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

using tavren::ConnectionException;
using tavren::SystemException;

TEST(ConnectionException, EachTypeHasItsText) {
    const char* texts[] = {"Timed out while attempting to connect.",
                           "The connection was refused.",
                           "No route to host.",
                           "Host is down.",
                           "The Broker replied with an error.",
                           "No connection is established.",
                           "The connection was not closed cleanly.",
                           "Unknown connection error."};
    for (int type = 0; type < 8; ++type) {
        ConnectionException e(static_cast<ConnectionException::ErrorType>(type), "");
        EXPECT_STREQ(e.what(), texts[type]) << type;
        EXPECT_EQ(e.errorType(), type);
    }
}

TEST(ConnectionException, EmptyDetailLeavesNoTrailingSpace) {
    ConnectionException e(ConnectionException::BrokerError, "");
    EXPECT_STREQ(e.what(), "The Broker replied with an error.");
}

TEST(ConnectionException, DetailFollowsASingleSpace) {
    ConnectionException e(ConnectionException::BrokerError, "Broker replied: \nbad login");
    EXPECT_STREQ(e.what(), "The Broker replied with an error. Broker replied: \nbad login");
}

TEST(ConnectionException, ValueOutsideTheTableIsUnknownButKept) {
    ConnectionException e(static_cast<ConnectionException::ErrorType>(9), "");
    EXPECT_STREQ(e.what(), "Unknown connection error.");
    EXPECT_EQ(static_cast<int>(e.errorType()), 9);
}

TEST(ConnectionException, IsAStdException) {
    try {
        throw ConnectionException(ConnectionException::ConnectionRefused, "");
    } catch (std::exception& e) {
        EXPECT_STREQ(e.what(), "The connection was refused.");
    }
}

TEST(SystemException, SystemTextThenDetail) {
    SystemException e(110, "while connecting");
    EXPECT_EQ(std::string(e.what()), std::string(strerror(110)) + " while connecting");
}

TEST(SystemException, EmptyDetailIsTheSystemTextAlone) {
    SystemException e(110, "");
    EXPECT_STREQ(e.what(), strerror(110));
}

TEST(SystemException, MessageOutlivesTheDetailString) {
    SystemException* e;
    {
        std::string detail = "temporary";
        e = new SystemException(2, detail);
    }
    EXPECT_EQ(std::string(e->what()), std::string(strerror(2)) + " temporary");
    delete e;
}

} // namespace
