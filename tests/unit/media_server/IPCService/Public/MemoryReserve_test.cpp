#include "media_server/IPCService/Public/MemoryReserve.h"

#include <gtest/gtest.h>

#include <future>
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

/// Another thread's reserve, which ends when it is told to.
class ReserveElsewhere
{
public:
    ReserveElsewhere() { m_isThere.get_future().wait(); }
    bool end()
    {
        m_mayEnd.set_value();
        m_thread.join();
        return m_triedAgain;
    }

private:
    std::promise<void> m_isThere;
    std::promise<void> m_mayEnd;
    bool m_triedAgain = false;
    std::thread m_thread{[this] {
        const MemoryReserve reserve(1);
        m_isThere.set_value();
        m_mayEnd.get_future().wait();
        m_triedAgain = triesAgain();
    }};
};

TEST(MemoryReserveTest, OfTwoThreadsEachHasItsOwnWhicheverEndsFirst)
{
    {
        ReserveElsewhere first;
        ReserveElsewhere second;
        EXPECT_TRUE(first.end());
        EXPECT_TRUE(second.end());
    }
    ReserveElsewhere first;
    ReserveElsewhere second;
    EXPECT_TRUE(second.end());
    EXPECT_TRUE(first.end());
}

TEST(MemoryReserveTest, ThrowsWhenItCannotBeHad)
{
    EXPECT_THROW(MemoryReserve(static_cast<std::size_t>(-1) - (64 << 10)), std::bad_alloc);
    EXPECT_FALSE(triesAgain());
}

}  // namespace
