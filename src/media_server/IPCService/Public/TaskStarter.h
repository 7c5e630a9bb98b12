#ifndef IPCSERVICE_TASKSTARTER_H
#define IPCSERVICE_TASKSTARTER_H

#include <Poco/Task.h>

namespace IPCService {
namespace ProtocalProcess {
class Public_SubProcess;
}

/// What the service's application gives to those that it brings up: they stand below it and do not know it.
class TaskStarter
{
public:
    /// Starts a task, which belongs to the application from then on. Any thread.
    /// @throws Poco::Exception when no thread can be had, or when the tasks have been told to end; the task is released
    virtual void startTask(Poco::Task* pTask) = 0;

    /// The application itself, for whoever has to keep a pointer of that type.
    virtual ProtocalProcess::Public_SubProcess* application() = 0;

    /// The way back from such a pointer. The application defines it, beside its type.
    static TaskStarter& of(ProtocalProcess::Public_SubProcess& application);

protected:
    ~TaskStarter() = default;
};

}  // namespace IPCService

#endif
