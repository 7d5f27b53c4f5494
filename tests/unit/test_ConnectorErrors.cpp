// SPDX-License-Identifier: Apache-2.0
#include "client/Connector.h"

#include <gtest/gtest.h>

#include <apr_errno.h>

namespace {

using tavren::ConnectionException;
using tavren::internal::Connector;

TEST(ConnectorErrors, StatusesMapToTheirErrorTypes) {
    EXPECT_EQ(Connector::errorTypeFor(110), ConnectionException::TimedOut);
    EXPECT_EQ(Connector::errorTypeFor(111), ConnectionException::ConnectionRefused);
    EXPECT_EQ(Connector::errorTypeFor(112), ConnectionException::HostDown);
    EXPECT_EQ(Connector::errorTypeFor(113), ConnectionException::NoRouteToHost);
}

TEST(ConnectorErrors, AnyOtherStatusIsUnknown) {
    for (int status : {0, 1, 11, 104, 20011, 20014, static_cast<int>(APR_EOF), static_cast<int>(APR_TIMEUP)}) {
        EXPECT_EQ(Connector::errorTypeFor(status), ConnectionException::UnknownError) << status;
    }
}

} // namespace
