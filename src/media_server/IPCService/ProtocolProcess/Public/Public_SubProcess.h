#ifndef PROTOCOLPROCESS_PUBLIC_SUBPROCESS_H
#define PROTOCOLPROCESS_PUBLIC_SUBPROCESS_H

#include <Poco/AutoPtr.h>
#include <Poco/Task.h>
#include <Poco/TaskManager.h>
#include <Poco/Util/ServerApplication.h>

#include <exception>
#include <mutex>
#include <string>
#include <vector>

#include "media_server/IPCService/ProtocolProcess/Public/Public_MetaDataRecvTask.h"
#include "media_server/IPCService/Public/TaskStarter.h"
#include "public/utils/alg_utils/utils_srvfs_eventcache.h"

namespace IPCService {
namespace ProtocalProcess {

/// The service process: owns every task, the event-cache subscription and the subsystem.
class Public_SubProcess : public Poco::Util::ServerApplication, public TaskStarter
{
public:
    Public_SubProcess();

    /// Ends the tasks, which use this object and the subsystem. A thread that does not come back within a second, held
    /// in a call that nothing can interrupt, would touch what is destroyed next: the process then ends here, with the
    /// exit code that main would have returned.
    ~Public_SubProcess() override;

    /// Starts a task on the default thread pool; the task manager owns it from then on.
    void startTask(Poco::Task* pTask) override;
    Public_SubProcess* application() override;

    /// Throws what initialize threw. The framework reports such a failure differently from version to version; the
    /// process entry reports it in one way.
    void rethrowStartFailure() const;

    /// Subscribes to the event cache, starts the receive task and brings up the subsystem. Main thread.
    /// @throws Poco::Exception when the service cannot start
    void initialize(Poco::Util::Application& self) override;
    void uninitialize() override;

    /// Serves until a stop signal. @return EXIT_OK
    int main(const std::vector<std::string>& args) override;

private:
    void startUp(Poco::Util::Application& self);

    /// Interrupts all tasks. @return true when they ended in time
    bool endTasks() noexcept;

    std::mutex m_listing;  ///< locked while a task is started: it does not run before it is in the manager's list
    Poco::TaskManager m_taskManager;
    bool m_bEnding = false;  ///< the tasks were told to end: none starts any more; under m_listing
    Poco::AutoPtr<Public_MetaDataRecvTask> m_pMetaDataRecvTask;
    EventCacheHndl m_stEventCacheHndl;
    std::exception_ptr m_pStartFailure;
    int m_exitCode;
};

}  // namespace ProtocalProcess
}  // namespace IPCService

#endif
