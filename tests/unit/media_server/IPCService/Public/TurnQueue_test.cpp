#include "media_server/IPCService/Public/TurnQueue.h"

#include <gtest/gtest.h>

namespace {

using IPCService::TurnQueue;
using Clock = TurnQueue::Clock;
using std::chrono::seconds;

const Clock::time_point NOW = Clock::time_point() + std::chrono::hours(1);
const Clock::time_point END = NOW + seconds(5);

TEST(TurnQueueTest, GoesByTheOrderOfComing)
{
    const int first = 1;
    const int second = 2;
    TurnQueue turns;
    turns.enter(&first);
    turns.enter(&second);
    EXPECT_FALSE(turns.take(&second, NOW, END));
    EXPECT_TRUE(turns.take(&first, NOW, END));
    EXPECT_EQ(turns.next(), &second);
    EXPECT_FALSE(turns.take(&second, NOW, END));
    turns.leave(&first);
    turns.enter(&first);
    EXPECT_FALSE(turns.take(&first, NOW, END)) << "who has just had the turn waits for the other";
    EXPECT_TRUE(turns.take(&second, NOW, END));
}

TEST(TurnQueueTest, EndsAtItsEndAndNotBefore)
{
    const int first = 1;
    const int second = 2;
    TurnQueue turns;
    turns.enter(&first);
    ASSERT_TRUE(turns.take(&first, NOW, END));
    turns.enter(&second);
    EXPECT_EQ(turns.comesAt(&second), END);
    EXPECT_FALSE(turns.take(&second, END - std::chrono::nanoseconds(1), END));
    EXPECT_TRUE(turns.take(&second, END, END + seconds(5)));
    turns.leave(&first);
    turns.enter(&first);
    EXPECT_FALSE(turns.take(&first, END, END)) << "the first gave back a turn that was no longer its own";
}

TEST(TurnQueueTest, OnlyTheFirstInLineKnowsWhenItGoes)
{
    const int first = 1;
    const int second = 2;
    const int third = 3;
    TurnQueue turns;
    EXPECT_EQ(turns.next(), nullptr);
    turns.enter(&first);
    ASSERT_TRUE(turns.take(&first, NOW, END));
    turns.enter(&second);
    turns.enter(&third);
    EXPECT_EQ(turns.comesAt(&third), Clock::time_point::max());
    turns.leave(&second);
    EXPECT_EQ(turns.comesAt(&third), END);
}

TEST(TurnQueueTest, WhoIsNotThereCanLeave)
{
    const int first = 1;
    const int second = 2;
    TurnQueue turns;
    turns.leave(&first);
    turns.enter(&first);
    ASSERT_TRUE(turns.take(&first, NOW, END));
    turns.leave(&second);
    turns.enter(&second);
    EXPECT_FALSE(turns.take(&second, NOW, END));
}

}  // namespace
