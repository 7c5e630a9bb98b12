#include <Poco/Exception.h>
#include <Poco/Task.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "media_server/IPCService/ProtocolProcess/Public/Public_SubProcess.h"
#include "support/child.h"

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
            sleep(1);
        }
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

}  // namespace
