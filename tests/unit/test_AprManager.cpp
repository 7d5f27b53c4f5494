// SPDX-License-Identifier: Apache-2.0
#include "transport/AprManager.h"
#include "transport/StompConnection.h"

#include <gtest/gtest.h>

#include <apr_pools.h>
#include <apr_thread_mutex.h>

// Nothing in this program calls apr_initialize: loading the library did.
TEST(AprManager, RuntimeIsReadyBeforeMain) {
    apr_pool_t* pool = nullptr;
    ASSERT_EQ(APR_SUCCESS, apr_pool_create(&pool, nullptr));
    apr_thread_mutex_t* mutex = nullptr;
    EXPECT_EQ(APR_SUCCESS, apr_thread_mutex_create(&mutex, APR_THREAD_MUTEX_DEFAULT, pool));
    apr_pool_destroy(pool);
}

TEST(AprManager, TheLibraryHoldsOneStaticInstance) {
    const tavren::internal::AprManager* manager = &tavren::internal::StompConnection::apr_init;
    EXPECT_NE(nullptr, manager);
}

TEST(AprManager, ConnectionsWorkWithoutAnySetUp) {
    tavren::internal::StompConnection connection;
    EXPECT_FALSE(connection.isConnected());
    EXPECT_EQ(20011, connection.disconnect());
}
