#include "media_server/IPCService/Public/MemoryReserve.h"

#include <gtest/gtest.h>

#include <new>
#include <thread>

using IPCService::MemoryReserve;

namespace {

/// Does what "new" does when there is no memory. @return true when it would try again
bool triesAgain()
{
    const std::new_handler handler = std::get_new_handler();
    if (handler == nullptr) {
        return false;
    }
    try {
        handler();
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

TEST(MemoryReserveTest, LetsOneAllocationBeTriedAgain)
{
    const MemoryReserve reserve(1);
    EXPECT_TRUE(triesAgain());
    EXPECT_FALSE(triesAgain());
}

TEST(MemoryReserveTest, OutsideItsScopeNothingIsTriedAgain)
{
    {
        const MemoryReserve reserve(1);
    }
    EXPECT_FALSE(triesAgain());
}

TEST(MemoryReserveTest, EmptyOneGivesNothing)
{
    const MemoryReserve reserve(0);
    EXPECT_FALSE(triesAgain());
}

TEST(MemoryReserveTest, EachOfNestedOnesIsGivenUpOnce)
{
    const MemoryReserve outer(1);
    {
        const MemoryReserve empty(0);
        const MemoryReserve inner(1);
        EXPECT_TRUE(triesAgain());
        EXPECT_TRUE(triesAgain());
        EXPECT_FALSE(triesAgain());
    }
    EXPECT_FALSE(triesAgain());
}

TEST(MemoryReserveTest, InnerOneLeavesTheOuterOneWhole)
{
    const MemoryReserve outer(1);
    {
        const MemoryReserve inner(1);
        EXPECT_TRUE(triesAgain());
    }
    EXPECT_TRUE(triesAgain());
}

TEST(MemoryReserveTest, IsForItsOwnThread)
{
    const MemoryReserve reserve(1);
    bool elsewhere = true;
    std::thread([&elsewhere] { elsewhere = triesAgain(); }).join();
    EXPECT_FALSE(elsewhere);
    EXPECT_TRUE(triesAgain());
}

TEST(MemoryReserveTest, ThrowsWhenItCannotBeHad)
{
    EXPECT_THROW(MemoryReserve(static_cast<std::size_t>(-1) - (64 << 10)), std::bad_alloc);
    EXPECT_FALSE(triesAgain());
}

}  // namespace
