/* Standard error is a pipe that nobody reads any more. */
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <thread>

#include "platform/recorded_output.h"
#include "ql_log.h"

namespace {

TEST(WriteLog, SurvivesAReaderThatWentAway)
{
    Pipe pipe;
    pipe.closeReader();
    sigset_t pending;
    {
        const StandardError standardError(pipe.writer());
        QL_WriteLog(4, 1, 0, 0, "p", 1, "nobody reads this");
        sigpending(&pending);
    }
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGPIPE), 0);
}

TEST(WriteLog, LeavesAThreadThatHoldsTheSignalBackItsOwnAndNoOther)
{
    for (const bool pendingBefore : {false, true}) {
        std::thread([pendingBefore] {
            sigset_t held;
            sigemptyset(&held);
            sigaddset(&held, SIGPIPE);
            pthread_sigmask(SIG_BLOCK, &held, nullptr);
            if (pendingBefore) {
                pthread_kill(pthread_self(), SIGPIPE);
            }
            Pipe pipe;
            pipe.closeReader();
            {
                const StandardError standardError(pipe.writer());
                QL_WriteLog(4, 1, 0, 0, "p", 1, "nobody reads this");
            }
            sigset_t mask;
            pthread_sigmask(SIG_SETMASK, nullptr, &mask);
            EXPECT_EQ(sigismember(&mask, SIGPIPE), 1);
            sigset_t pending;
            sigpending(&pending);
            EXPECT_EQ(sigismember(&pending, SIGPIPE) == 1, pendingBefore);
        }).join();
    }
}

}  // namespace
