#include "media_server/IPCService/Public/WakeUp.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

namespace {

using IPCService::WakeUp;

bool isReadable(const WakeUp& wakeUp)
{
    pollfd waited{wakeUp.descriptor(), POLLIN, 0};
    return ::poll(&waited, 1, 0) == 1;
}

TEST(WakeUpTest, IsReadableFromItsSignalUntilItIsCleared)
{
    const WakeUp wakeUp;
    EXPECT_FALSE(isReadable(wakeUp));
    wakeUp.signal();
    wakeUp.signal();
    EXPECT_TRUE(isReadable(wakeUp));
    EXPECT_TRUE(isReadable(wakeUp));
    wakeUp.clear();
    EXPECT_FALSE(isReadable(wakeUp));
}

TEST(WakeUpTest, ClearedWithoutASignalItDoesNotBlock)
{
    const WakeUp wakeUp;
    wakeUp.clear();
    EXPECT_FALSE(isReadable(wakeUp));
}

TEST(WakeUpTest, IsNotInherited)
{
    EXPECT_EQ(::fcntl(WakeUp().descriptor(), F_GETFD), FD_CLOEXEC);
}

}  // namespace
