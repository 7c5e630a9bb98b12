#include "media_server/IPCService/Public/StopSignals.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <thread>
#include <vector>

namespace {

using IPCService::holdStopSignals;
using IPCService::StopSignalsBlocked;

/** Those of the signals that the calling thread holds back. */
std::vector<int> heldBack()
{
    sigset_t mask;
    EXPECT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &mask), 0);
    std::vector<int> held;
    for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGCHLD}) {
        if (sigismember(&mask, number) == 1) {
            held.push_back(number);
        }
    }
    return held;
}

const std::vector<int> STOP_SIGNALS = {SIGINT, SIGQUIT, SIGTERM};

TEST(StopSignalsTest, AreHeldBackForAWhileAndFromThreadsStartedMeanwhile)
{
    ASSERT_EQ(heldBack(), std::vector<int>{});
    {
        const StopSignalsBlocked blocked;
        EXPECT_EQ(heldBack(), STOP_SIGNALS);
        std::thread([] { EXPECT_EQ(heldBack(), STOP_SIGNALS); }).join();
    }
    EXPECT_EQ(heldBack(), std::vector<int>{});
}

TEST(StopSignalsTest, AreHeldForGoodByTheCallingThread)
{
    std::thread([] {
        holdStopSignals();
        {
            const StopSignalsBlocked blocked;
        }
        EXPECT_EQ(heldBack(), STOP_SIGNALS);
    }).join();
    EXPECT_EQ(heldBack(), std::vector<int>{});
}

}  // namespace
