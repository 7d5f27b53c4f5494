// SPDX-License-Identifier: Apache-2.0
#include <kelvra/SharedPtr.h>
#include <kelvra/UniquePtr.h>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using kelvra::SharedPtr;
using kelvra::UniquePtr;

namespace {

struct Counted {
    explicit Counted(int* deaths) : deaths(deaths) {}
    virtual ~Counted() { ++*deaths; }
    int* deaths;
};

struct Derived : Counted {
    using Counted::Counted;
};

} // namespace

TEST(SharedPtr, LastCopyDeletesOnce) {
    int deaths = 0;
    {
        SharedPtr<Counted> a(new Counted(&deaths));
        EXPECT_EQ(1, a.useCount());
        {
            SharedPtr<Counted> b = a;
            SharedPtr<Counted> c;
            c = b;
            EXPECT_EQ(3, a.useCount());
            EXPECT_EQ(a.get(), c.get());
        }
        EXPECT_EQ(1, a.useCount());
        EXPECT_EQ(0, deaths);
    }
    EXPECT_EQ(1, deaths);
}

TEST(SharedPtr, EmptyAndReset) {
    int deaths = 0;
    SharedPtr<Counted> empty;
    EXPECT_FALSE(empty);
    EXPECT_TRUE(empty.isNull());
    EXPECT_EQ(0, empty.useCount());
    SharedPtr<Counted> a(new Counted(&deaths));
    a.reset(new Counted(&deaths));
    EXPECT_EQ(1, deaths);
    a.reset();
    EXPECT_EQ(2, deaths);
    EXPECT_FALSE(a);
}

TEST(SharedPtr, SelfAssignmentKeepsTheObject) {
    int deaths = 0;
    SharedPtr<Counted> a(new Counted(&deaths));
    SharedPtr<Counted>& alias = a;
    a = alias;
    EXPECT_EQ(0, deaths);
    EXPECT_EQ(1, a.useCount());
}

TEST(SharedPtr, ConvertsFromDerived) {
    int deaths = 0;
    {
        SharedPtr<Derived> d(new Derived(&deaths));
        SharedPtr<Counted> base = d;
        EXPECT_EQ(2, base.useCount());
        EXPECT_TRUE(base == d);
    }
    EXPECT_EQ(1, deaths);
}

TEST(SharedPtr, CopiesOnManyThreads) {
    int deaths = 0;
    {
        SharedPtr<Counted> shared(new Counted(&deaths));
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([shared] {
                for (int i = 0; i < 10000; ++i) {
                    SharedPtr<Counted> copy = shared;
                    (void)copy;
                }
            });
        for (auto& t : threads) t.join();
        EXPECT_EQ(1, shared.useCount());
    }
    EXPECT_EQ(1, deaths);
}

TEST(UniquePtr, CleanDeletesAndEmpties) {
    int deaths = 0;
    UniquePtr<Counted> p(new Counted(&deaths));
    EXPECT_TRUE(p);
    p.clean();
    EXPECT_EQ(1, deaths);
    EXPECT_FALSE(p);
    p.clean();
    EXPECT_EQ(1, deaths) << "cleaning an empty pointer does nothing";
}

TEST(UniquePtr, DeletesWhenDestroyedOrReset) {
    int deaths = 0;
    {
        UniquePtr<Counted> p(new Counted(&deaths));
        p.reset(new Counted(&deaths));
        EXPECT_EQ(1, deaths);
    }
    EXPECT_EQ(2, deaths);
}

TEST(UniquePtr, ReleaseAndMove) {
    int deaths = 0;
    UniquePtr<Counted> a(new Counted(&deaths));
    UniquePtr<Counted> b(std::move(a));
    EXPECT_FALSE(a);
    EXPECT_TRUE(b);
    Counted* raw = b.release();
    EXPECT_FALSE(b);
    EXPECT_EQ(0, deaths);
    delete raw;
    EXPECT_EQ(1, deaths);
}
