#include "media_server/IPCService/Public/Interruption.h"

#include <Poco/Exception.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <type_traits>

#include "support/system_calls.h"
#include "support/waiting.h"

namespace {

using IPCService::Interrupted;
using IPCService::Interruption;
using std::chrono::milliseconds;

class Pipe
{
public:
    Pipe() { EXPECT_EQ(::pipe2(m_ends.data(), O_CLOEXEC), 0); }
    ~Pipe()
    {
        ::close(m_ends[0]);
        ::close(m_ends[1]);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int reader() const { return m_ends[0]; }
    int writer() const { return m_ends[1]; }
    void fill() const { EXPECT_EQ(::write(m_ends[1], "x", 1), 1); }

private:
    std::array<int, 2> m_ends{};
};

/// Counts the polls that begin while it lives.
class Polls
{
public:
    Polls()
    {
        systemCalls().polling = [this](const pollfd*, nfds_t, int) { ++m_count; };
    }
    ~Polls() { systemCalls().polling = nullptr; }
    Polls(const Polls&) = delete;
    Polls& operator=(const Polls&) = delete;

    bool waitFor(int count) const
    {
        return eventually([this, count] { return m_count >= count; });
    }

private:
    std::atomic<int> m_count{0};
};

static_assert(std::is_empty<Interrupted>::value && !std::is_base_of<std::exception, Interrupted>::value,
              "not caught as a failure");

TEST(Interruption, WaitTellsThatADescriptorIsReady)
{
    const Pipe pipe;
    EXPECT_TRUE(Interruption::wait(pipe.writer(), POLLOUT, -1));
    pipe.fill();
    EXPECT_TRUE(Interruption::wait(pipe.reader(), POLLIN, -1));
    EXPECT_TRUE(Interruption::wait(pipe.reader(), POLLIN, 0));
}

TEST(Interruption, WaitEndsWithTheTimeOutAndNotBefore)
{
    const Pipe pipe;
    EXPECT_FALSE(Interruption::wait(pipe.reader(), POLLIN, 0));
    const Stopwatch stopwatch;
    EXPECT_FALSE(Interruption::wait(pipe.reader(), POLLIN, 50));
    EXPECT_GE(stopwatch.elapsed(), milliseconds(50));
}

TEST(Interruption, WhatNeedNotWaitTakesNoTime)
{
    constexpr int TIMES = 5000;  // with one millisecond each they would take longer than this test may
    const Pipe pipe;
    const std::function<void()> immediate[] = {[] { Interruption::check(); },
                                               [&] { Interruption::wait(pipe.reader(), POLLIN, 0); },
                                               [] { Interruption::wait(-1, POLLIN, -1); }};
    for (const auto& call : immediate) {
        const Stopwatch stopwatch;
        for (int i = 0; i < TIMES; ++i) {
            call();
        }
        EXPECT_LT(stopwatch.elapsed(), milliseconds(TIMES));
    }
}

TEST(Interruption, WaitEndsWhenTheDescriptorBecomesReady)
{
    const Pipe pipe;
    const Polls polls;
    auto waiting = std::async(std::launch::async, [&pipe] { return Interruption::wait(pipe.reader(), POLLIN, -1); });
    ASSERT_TRUE(polls.waitFor(1));
    pipe.fill();
    EXPECT_TRUE(waiting.get());
}

TEST(Interruption, DescriptorThatIsNoneCountsAsReady)
{
    const Pipe pipe;
    const int closed = ::dup(0);
    ::close(closed);
    for (const int descriptor : {-1, closed}) {
        EXPECT_TRUE(Interruption::wait(descriptor, POLLIN, -1));
        EXPECT_TRUE(Interruption::wait(descriptor, POLLOUT, 3600000));
        EXPECT_TRUE(Interruption::waitForAny({pipe.reader(), descriptor}, Interruption::Clock::time_point::max()));
    }
}

TEST(Interruption, AnyOfTwoDescriptorsEndsTheWait)
{
    const Pipe first;
    const Pipe second;
    const auto deadline = Interruption::Clock::now() + milliseconds(50);
    EXPECT_FALSE(Interruption::waitForAny({first.reader(), second.reader()}, deadline));
    EXPECT_GE(Interruption::Clock::now(), deadline);
    second.fill();
    EXPECT_TRUE(Interruption::waitForAny({first.reader(), second.reader()}, Interruption::Clock::time_point::max()));
    EXPECT_TRUE(Interruption::waitForAny({second.reader(), first.reader()}, Interruption::Clock::time_point::max()));
}

TEST(Interruption, DescriptorCountsAsReadyWhereThereIsNoMemoryToWait)
{
    const Pipe pipe;
    systemCalls().pollFails = true;
    EXPECT_TRUE(Interruption::wait(pipe.reader(), POLLIN, -1));
    EXPECT_TRUE(Interruption::wait(pipe.reader(), POLLIN, 0));
}

// The signals come faster than the sleep is long: one that began anew with each of them would never end.
TEST(Interruption, SignalsNeitherShortenNorLengthenASleep)
{
    struct sigaction before = {};
    struct sigaction ignoring = {};
    ignoring.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGUSR1, &ignoring, &before), 0);
    const Polls polls;
    std::atomic<bool> ended{false};
    const Stopwatch stopwatch;
    std::thread sleeper([&ended] {
        Interruption::sleep(100);
        ended = true;
    });
    ASSERT_TRUE(polls.waitFor(1));
    while (!ended) {
        ::pthread_kill(sleeper.native_handle(), SIGUSR1);
        std::this_thread::yield();
    }
    sleeper.join();
    EXPECT_GE(stopwatch.elapsed(), milliseconds(100));
    EXPECT_TRUE(polls.waitFor(2)) << "no signal came during the sleep";
    ::sigaction(SIGUSR1, &before, nullptr);
}

TEST(Interruption, InterruptEndsAWaitForADescriptorAndASleep)
{
    const Pipe pipe;
    const std::function<void()> waits[] = {[&pipe] { Interruption::wait(pipe.reader(), POLLIN, -1); },
                                           [] { Interruption::sleep(3600000); }};
    for (const auto& wait : waits) {
        const Polls polls;
        Interruption interruption;
        auto waiting = std::async(std::launch::async, [&] {
            const Interruption::Scope scope(interruption);
            wait();
        });
        ASSERT_TRUE(polls.waitFor(1));
        interruption.interrupt();
        EXPECT_THROW(waiting.get(), Interrupted);
    }
}

TEST(Interruption, OnceInterruptedEveryWaitThrowsAndThereIsNoWayBack)
{
    const Pipe pipe;
    pipe.fill();
    Interruption::check();
    Interruption interruption;
    interruption.interrupt();
    const Interruption::Scope scope(interruption);
    for (int i = 0; i < 3; ++i) {
        EXPECT_THROW(Interruption::check(), Interrupted);
        EXPECT_THROW(Interruption::sleep(0), Interrupted);
        EXPECT_THROW(Interruption::sleep(3600000), Interrupted);
        EXPECT_THROW(Interruption::wait(pipe.reader(), POLLIN, -1), Interrupted) << "although it is ready";
        EXPECT_THROW(Interruption::wait(pipe.reader(), POLLIN, 0), Interrupted);
        EXPECT_THROW(Interruption::wait(-1, POLLIN, -1), Interrupted) << "although it is none";
        interruption.interrupt();
    }
    // Another thread is not in its scope.
    std::async(std::launch::async, [] { Interruption::sleep(1); }).get();
}

TEST(Interruption, CheckPassesUntilInterruptedAndAfterItsScope)
{
    Interruption interruption;
    {
        const Interruption::Scope scope(interruption);
        Interruption::check();
        interruption.interrupt();
        EXPECT_THROW(Interruption::check(), Interrupted);
    }
    Interruption::check();
}

TEST(Interruption, InnerScopeHidesTheOuterOneUntilItEnds)
{
    Interruption outer;
    Interruption inner;
    const Interruption::Scope outerScope(outer);
    {
        const Interruption::Scope innerScope(inner);
        inner.interrupt();
        EXPECT_THROW(Interruption::check(), Interrupted);
    }
    Interruption::check();
    {
        Interruption another;
        const Interruption::Scope anotherScope(another);
        outer.interrupt();
        Interruption::check();
    }
    EXPECT_THROW(Interruption::check(), Interrupted);
}

TEST(Interruption, NeedsADescriptor)
{
    rlimit before = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_THROW(Interruption(), Poco::SystemException);
    ::setrlimit(RLIMIT_NOFILE, &before);
}

}  // namespace
