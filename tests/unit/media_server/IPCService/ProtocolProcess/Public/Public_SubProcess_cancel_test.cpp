#include <Poco/Exception.h>
#include <Poco/Task.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>

#include "media_server/IPCService/ProtocolProcess/Public/Public_SubProcess.h"
#include "support/child.h"
#include "support/waiting.h"

namespace {

using IPCService::ProtocalProcess::Public_SubProcess;

/// A task that ends when it is cancelled, but cannot be told so without a failure.
class FailingToCancelTask : public Poco::Task
{
public:
    FailingToCancelTask() : Poco::Task("cannot be cancelled") {}
    void runTask() override
    {
        while (!isCancelled()) {
            sleep(1);  // pause: Poco's, which the cancelling ends
        }
    }
    void cancel() override
    {
        Poco::Task::cancel();
        throw Poco::SystemException("cannot be cancelled");
    }
};

/// Tries to start another task once it was told to end.
class LateStartingTask : public Poco::Task
{
public:
    LateStartingTask(Public_SubProcess& process, std::atomic<bool>& started, std::atomic<bool>& refused)
        : Poco::Task("late starting"), m_process(process), m_started(started), m_refused(refused)
    {
    }
    void runTask() override
    {
        m_started = true;
        EXPECT_TRUE(eventually([this] { return isCancelled(); }));
        try {
            m_process.startTask(new FailingToCancelTask);
        } catch (const Poco::IllegalStateException&) {
            m_refused = true;
        }
    }

private:
    Public_SubProcess& m_process;
    std::atomic<bool>& m_started;
    std::atomic<bool>& m_refused;
};

TEST(SubProcess, NoTaskStartsOnceTheTasksWereToldToEnd)
{
    std::atomic<bool> started{false};
    std::atomic<bool> refused{false};
    {
        Public_SubProcess process;
        process.startTask(new LateStartingTask(process, started, refused));
        ASSERT_TRUE(eventually([&started] { return started.load(); }));
    }
    EXPECT_TRUE(refused);
}

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

}  // namespace
