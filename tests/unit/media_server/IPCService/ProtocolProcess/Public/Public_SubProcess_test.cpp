#include "media_server/IPCService/ProtocolProcess/Public/Public_SubProcess.h"

#include <Poco/Exception.h>
#include <Poco/Task.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/captured_log.h"
#include "support/child.h"
#include "support/event_cache.h"
#include "support/fake_platform.h"
#include "support/log_line.h"
#include "support/raw_bytes.h"
#include "support/system_calls.h"
#include "support/unix_socket.h"
#include "support/waiting.h"

namespace {

using IPCService::ProtocalProcess::Public_SubProcess;
using std::chrono::milliseconds;
using testing::Each;
using testing::HasSubstr;

const char SOURCE[] = "media_server/IPCService/ProtocolProcess/Public/Public_SubProcess";
const char WAITING[] = "waitForTerminationRequest sucess!\n";

/// A task that does what it is given.
class WorkTask : public Poco::Task
{
public:
    explicit WorkTask(std::function<void(WorkTask&)> work) : Poco::Task("work"), m_work(std::move(work)) {}
    void runTask() override { m_work(*this); }
    using Poco::Task::isCancelled;

private:
    std::function<void(WorkTask&)> m_work;
};

/// Looks at a service when it waits for its end, and sends it a stop signal. The signal is the main thread's.
std::thread stopper(std::function<void()> look)
{
    return std::thread([look = std::move(look)] {
        sigset_t stopSignal;
        sigemptyset(&stopSignal);
        sigaddset(&stopSignal, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &stopSignal, nullptr);
        EXPECT_TRUE(CapturedLog::waitForFormat(WAITING));
        look();
        ::kill(::getpid(), SIGTERM);
    });
}

/// Runs a service's main and, when it waits for its end, a look at it; then a stop signal ends it.
void serve(Public_SubProcess& process, const std::function<void()>& look)
{
    std::thread observer = stopper(look);
    EXPECT_EQ(process.main({}), 0);
    observer.join();
}

/// Looks at a service of a child process that waits for its end. @return the child's exit code
int whileServing(const std::function<void()>& look)
{
    return inChild([&look] {
        Public_SubProcess process;
        serve(process, look);
    });
}

/// The stop signals that the calling thread holds back.
std::vector<int> heldBack()
{
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    std::vector<int> signals;
    for (const int signal : {SIGINT, SIGQUIT, SIGTERM}) {
        if (sigismember(&mask, signal) == 1) {
            signals.push_back(signal);
        }
    }
    return signals;
}

TEST(SubProcess, ChildSignalHasAHandlerWithInformationAndAnEmptyMask)
{
    EXPECT_EQ(whileServing([] {
                  struct sigaction action = {};
                  EXPECT_EQ(::sigaction(SIGCHLD, nullptr, &action), 0);
                  // The C library's own flag, which it adds to every action on some machines.
                  constexpr int RESTORER = 0x04000000;
                  EXPECT_EQ(action.sa_flags & ~RESTORER, SA_SIGINFO);
                  for (int signal = 1; signal < 32; ++signal) {
                      EXPECT_EQ(sigismember(&action.sa_mask, signal), 0) << signal;
                  }
                  EXPECT_EQ(CapturedLog::withFormat("SignalCapture sucess!\n").size(), 1U);
              }),
              0);
}

TEST(SubProcess, HandlerNeitherWaitsNorChangesTheErrorNumber)
{
    EXPECT_EQ(whileServing([] {
                  const pid_t running = ::fork();
                  if (running == 0) {
                      ::pause();
                  }
                  const Stopwatch stopwatch;
                  errno = 4711;
                  ::raise(SIGCHLD);
                  EXPECT_EQ(errno, 4711);
                  EXPECT_LT(stopwatch.elapsed(), atMost(milliseconds(5000)));
                  ::kill(running, SIGKILL);
                  EXPECT_TRUE(eventually([running] { return ::kill(running, 0) == -1; }));
                  errno = 4712;
                  ::raise(SIGCHLD);
                  EXPECT_EQ(errno, 4712) << "no child at all";
              }),
              0);
}

TEST(SubProcess, ServesWithoutHandlerWhenItCannotBeInstalled)
{
    const std::vector<std::pair<bool SystemCalls::*, std::string>> failures = {
        {&SystemCalls::sigemptysetFails, "sigemptyset Fail"},
        {&SystemCalls::sigactionFails, "register capture SIGCHLD signal Fail"}};
    for (const auto& failure : failures) {
        EXPECT_EQ(inChild([&failure] {
                      Public_SubProcess process;
                      systemCalls().*failure.first = true;
                      serve(process, [&failure] {
                          systemCalls().*failure.first = false;
                          struct sigaction action = {};
                          EXPECT_EQ(::sigaction(SIGCHLD, nullptr, &action), 0);
                          EXPECT_EQ(action.sa_handler, SIG_DFL);
                          EXPECT_EQ(onlyLine(SOURCE, 3, failure.second), failure.second);
                          EXPECT_EQ(CapturedLog::texts(), (std::vector<std::string>{failure.second, WAITING}));
                      });
                  }),
                  0);
    }
}

TEST(SubProcess, FailedSubscriptionIsAnAssertionOfLine91)
{
    EventCache cache;
    cache.eventAnswer = -1;
    Public_SubProcess process;
    process.rethrowStartFailure();
    const auto expectAssertion = [](const std::function<void()>& call) {
        try {
            call();
            FAIL() << "nothing thrown";
        } catch (const Poco::AssertionViolationException& exc) {
            EXPECT_THAT(exc.displayText(), HasSubstr("nRet == IPC_SUCCESS"));
            EXPECT_THAT(exc.displayText(), HasSubstr("Public_SubProcess"));
            EXPECT_THAT(exc.displayText(), HasSubstr("line 91"));
        }
    };
    expectAssertion([&process] { process.initialize(process); });
    expectAssertion([&process] { process.rethrowStartFailure(); });
    EXPECT_TRUE(FakePlatform::users().empty()) << "the subsystem came up nevertheless";
}

TEST(SubProcess, RunSubscribesStartsItsTaskAndTheSubsystemAndServes)
{
    EXPECT_EQ(inChild([] {
                  EventCache cache;
                  UnixSocket itgt("/tmp/II");
                  std::ofstream("/tmp/intelligent_ok");
                  std::mutex mutex;
                  std::set<std::thread::id> waiting;
                  systemCalls().polling = [&, self = std::this_thread::get_id()](const pollfd*, nfds_t, int) {
                      const std::lock_guard<std::mutex> lock(mutex);
                      if (std::this_thread::get_id() != self) {
                          waiting.insert(std::this_thread::get_id());
                      }
                  };
                  std::thread observer = stopper([&] {
                      EXPECT_EQ(textAt(cache.packet(), 16 + 16), "gate.saas.olv");
                      EXPECT_TRUE(eventually([&] {
                          const std::lock_guard<std::mutex> lock(mutex);
                          return waiting.size() == 2;
                      })) << "the receive task and the command loop";
                      EXPECT_EQ(numberAt<std::uint32_t>(itgt.receive().value(), 164), 1037U);
                      EXPECT_EQ(FakePlatform::opened().size(), 1U);
                  });
                  char name[] = "service";
                  char* arguments[] = {name, nullptr};
                  {
                      Public_SubProcess process;
                      EXPECT_EQ(process.run(1, arguments), 0);
                      process.rethrowStartFailure();
                  }
                  observer.join();
                  systemCalls().polling = nullptr;
              }),
              0);
}

TEST(SubProcess, TasksHoldTheStopSignalsBackAndTheCallerDoesNot)
{
    std::array<std::vector<int>, 4> inTasks;  // the pool begins with two threads
    std::atomic<std::size_t> begun{0};
    Public_SubProcess process;
    const std::vector<int> before = heldBack();
    const auto haveBegun = [&] { return begun == inTasks.size(); };
    for (std::vector<int>& inTask : inTasks) {
        process.startTask(new WorkTask([&](WorkTask&) {
            inTask = heldBack();
            ++begun;
            EXPECT_TRUE(eventually(haveBegun));
        }));
    }
    ASSERT_TRUE(eventually(haveBegun));
    EXPECT_THAT(inTasks, Each(std::vector<int>{SIGINT, SIGQUIT, SIGTERM}));
    EXPECT_EQ(heldBack(), before);
}

TEST(SubProcess, DestructionCancelsTasksAndWaitsForThem)
{
    std::atomic<bool> started{false};
    std::atomic<bool> ended{false};
    auto process = std::make_unique<Public_SubProcess>();
    process->startTask(new WorkTask([&started, &ended](WorkTask& task) {
        started = true;
        EXPECT_TRUE(eventually([&task] { return task.isCancelled(); }));
        ended = true;
    }));
    ASSERT_TRUE(eventually([&started] { return started.load(); }));
    const Stopwatch stopwatch;
    process.reset();
    EXPECT_TRUE(ended);
    EXPECT_LT(stopwatch.elapsed(), atMost(milliseconds(1500)));
}

TEST(SubProcess, NoTaskStartsOnceTheTasksWereToldToEnd)
{
    std::atomic<bool> started{false};
    std::atomic<bool> refused{false};
    {
        Public_SubProcess process;
        process.startTask(new WorkTask([&](WorkTask& task) {
            started = true;
            EXPECT_TRUE(eventually([&task] { return task.isCancelled(); }));
            EXPECT_THROW(process.startTask(new WorkTask([](WorkTask&) {})), Poco::IllegalStateException);
            refused = true;
        }));
        ASSERT_TRUE(eventually([&started] { return started.load(); }));
    }
    EXPECT_TRUE(refused);
}

/// A task in whose cancelling another starts a third.
class CancelledWhileStartingTask : public WorkTask
{
public:
    CancelledWhileStartingTask(std::atomic<int>& running, std::promise<void>& mayStart, std::future<void>& isStarted)
        : WorkTask([&running](WorkTask& task) {
              ++running;
              EXPECT_TRUE(eventually([&] { return task.isCancelled(); }));
          }),
          m_mayStart(mayStart),
          m_isStarted(isStarted)
    {
    }
    void cancel() override
    {
        m_mayStart.set_value();
        EXPECT_EQ(m_isStarted.wait_for(milliseconds(50)), std::future_status::timeout) << "it waits for the others";
        Poco::Task::cancel();
    }

private:
    std::promise<void>& m_mayStart;
    std::future<void>& m_isStarted;
};

TEST(SubProcess, TaskThatIsStartedWhileTheOthersAreToldToEndIsRefused)
{
    std::atomic<int> running{0};
    std::promise<void> mayStart;
    std::promise<void> start;
    std::future<void> isStarted = start.get_future();
    {
        Public_SubProcess process;
        process.startTask(new WorkTask([&](WorkTask&) {
            ++running;
            mayStart.get_future().wait();
            EXPECT_THROW(process.startTask(new WorkTask([](WorkTask&) {})), Poco::IllegalStateException);
            start.set_value();
        }));
        process.startTask(new CancelledWhileStartingTask(running, mayStart, isStarted));
        ASSERT_TRUE(eventually([&running] { return running == 2; }));
    }
    EXPECT_EQ(isStarted.wait_for(milliseconds(0)), std::future_status::ready);
}

/// A task that ends when it is cancelled, but cannot be told so without a failure.
class FailingToCancelTask : public WorkTask
{
public:
    FailingToCancelTask()
        : WorkTask([](WorkTask& task) { EXPECT_TRUE(eventually([&] { return task.isCancelled(); })); })
    {
    }
    void cancel() override
    {
        Poco::Task::cancel();
        throw Poco::SystemException("cannot be cancelled");
    }
};

TEST(SubProcess, TaskThatFailsWhileItIsCancelledIsLeftBehind)
{
    EXPECT_EQ(inChild([] {
                  {
                      Public_SubProcess process;
                      process.startTask(new FailingToCancelTask);
                  }
                  std::_Exit(99);
              }),
              70);
}

TEST(SubProcess, TasksThatEndAtOnceRunOnceAndAreNotWaitedFor)
{
    EXPECT_EQ(inChild([] {
                  std::atomic<int> runs{0};
                  {
                      Public_SubProcess process;
                      for (int i = 0; i < 200; ++i) {
                          process.startTask(new WorkTask([&runs](WorkTask&) { ++runs; }));
                          EXPECT_TRUE(eventually([&runs, i] { return runs > i; }));
                      }
                  }
                  std::_Exit(runs == 200 ? 99 : 98);
              }),
              99)
        << "a task that the process waits for in vain ends it with another code";
}

/// The exit code of a process whose destruction meets a task that does not end, and how long that took.
int exitCodeWithStubbornTask(bool afterMain)
{
    const Stopwatch stopwatch;
    const int code = inChild([afterMain] {
        std::atomic<bool> started{false};
        {
            Public_SubProcess process;
            process.startTask(new WorkTask([&started](WorkTask&) {
                started = true;
                for (;;) {
                    ::pause();
                }
            }));
            EXPECT_TRUE(eventually([&started] { return started.load(); }));
            if (afterMain) {
                serve(process, [] {});
            }
        }
        std::_Exit(99);
    });
    EXPECT_GE(stopwatch.elapsed(), milliseconds(900)) << "it got its second";
    EXPECT_LT(stopwatch.elapsed(), atMost(milliseconds(5000)));
    return code;
}

TEST(SubProcess, TaskThatDoesNotEndIsLeftBehindWithTheExitCodeOfMain)
{
    EXPECT_EQ(exitCodeWithStubbornTask(true), 0);
}

TEST(SubProcess, TaskThatDoesNotEndIsLeftBehindWithSoftwareErrorBeforeMain)
{
    EXPECT_EQ(exitCodeWithStubbornTask(false), 70);
}

}  // namespace
