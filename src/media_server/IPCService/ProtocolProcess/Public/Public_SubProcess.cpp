#include "media_server/IPCService/ProtocolProcess/Public/Public_SubProcess.h"

#include <Poco/Bugcheck.h>
#include <Poco/Exception.h>
#include <Poco/Thread.h>
#include <Poco/ThreadPool.h>
#include <signal.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <new>
#include <utility>

#include "bounds_checked.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_SubSystem.h"
#include "media_server/IPCService/Public/ServiceLog.h"
#include "media_server/IPCService/Public/StopSignals.h"

namespace IPCService {
namespace ProtocalProcess {

namespace {

constexpr LogSource LOG_SOURCE{"media_server/IPCService/ProtocolProcess/Public/Public_SubProcess"};

constexpr char PUBLISHER_NAME[] = "gate.saas.olv";
/// Line that a failed subscription is reported with, wherever the check stands.
constexpr int SUBSCRIPTION_ASSERTION_LINE = 91;
constexpr std::chrono::milliseconds LONGEST_TASK_END(1000);
constexpr long TASK_END_STEP = 2;  // milliseconds
/// Milliseconds, until memory that was short is tried anew.
constexpr long MEMORY_INTERVAL = 100;

/// The default thread pool. Its first threads start with it.
Poco::ThreadPool& threadPool()
{
    const StopSignalsBlocked blocked;
    return Poco::ThreadPool::defaultPool();
}

/// Runs a task once the task manager has it in its list. The manager of POCO 1.13 starts the thread first: a task that
/// ends at once would stay in the list for ever, and a stop in between would not find it there.
class ListedTask : public Poco::Task
{
public:
    ListedTask(Poco::AutoPtr<Poco::Task> pTask, std::mutex& listing)
        : Poco::Task(pTask->name()), m_pTask(std::move(pTask)), m_listing(listing)
    {
    }

    void cancel() override
    {
        Poco::Task::cancel();
        m_pTask->cancel();
    }

    /// The manager tells of the start and of the end, and forgets the task only then. Should it have no memory for that
    /// the task runs all the same, as it has to tidy up behind itself, and comes to its end once there is memory.
    void run() override
    {
        const Poco::AutoPtr<ListedTask> self(this, true);  // the manager lets go of what has run
        while (!runToItsEnd()) {
            runTask();
            Poco::Thread::sleep(MEMORY_INTERVAL);
        }
    }

    void runTask() override
    {
        if (!std::exchange(m_bRun, true)) {
            Poco::AutoPtr<Poco::Task> pTask = listedTask();
            if (!pTask.isNull()) {
                pTask->run();
            }
        }
    }

    /// Nothing is to run: it did not come into the list. The caller has the mutex.
    void abandon() { m_pTask = nullptr; }

private:
    /// @return false when there was no memory to tell the manager
    bool runToItsEnd()
    {
        try {
            Poco::Task::run();
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }

    Poco::AutoPtr<Poco::Task> listedTask()
    {
        const std::lock_guard<std::mutex> listed(m_listing);
        return m_pTask;
    }

    Poco::AutoPtr<Poco::Task> m_pTask;
    std::mutex& m_listing;
    bool m_bRun = false;  ///< whether it was: for the task's thread
};

/// Reaps one child for each signal delivered; signals that fell together leave their other children for later.
/// Runs in signal context.
extern "C" void reapChild(int /*signal*/, siginfo_t* /*info*/, void* /*context*/)
{
    const int savedErrno = errno;
    ::waitpid(-1, nullptr, WNOHANG);
    errno = savedErrno;
}

void captureChildSignal()
{
    struct sigaction action = {};
    if (sigemptyset(&action.sa_mask) != 0) {
        LOG(Error, "sigemptyset Fail");
        return;
    }
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = reapChild;
    if (::sigaction(SIGCHLD, &action, nullptr) != 0) {
        LOG(Error, "register capture SIGCHLD signal Fail");
        return;
    }
    LOG(Information, "SignalCapture sucess!\n");
}

}  // namespace

Public_SubProcess::Public_SubProcess() : m_taskManager(threadPool()), m_exitCode(EXIT_SOFTWARE)
{
    memset_s(&m_stEventCacheHndl, sizeof(m_stEventCacheHndl), 0, sizeof(m_stEventCacheHndl));
}

Public_SubProcess::~Public_SubProcess()
{
    if (!endTasks()) {
        std::_Exit(m_exitCode);
    }
}

void Public_SubProcess::startTask(Poco::Task* pTask)
{
    Poco::AutoPtr<Poco::Task> pOwned(pTask);
    const StopSignalsBlocked blocked;
    Poco::AutoPtr<ListedTask> pListed(new ListedTask(pOwned, m_listing));
    const std::lock_guard<std::mutex> listing(m_listing);
    if (m_bEnding) {
        throw Poco::IllegalStateException("the service stops");
    }
    try {
        m_taskManager.start(pListed.duplicate());
    } catch (const std::bad_alloc&) {
        // There may be a thread already, on its way into the task: the task stays, empty.
        pListed->abandon();
        (void)pListed.duplicate();
        throw;
    }
}

Public_SubProcess* Public_SubProcess::application()
{
    return this;
}

void Public_SubProcess::rethrowStartFailure() const
{
    if (m_pStartFailure) {
        std::rethrow_exception(m_pStartFailure);
    }
}

void Public_SubProcess::initialize(Poco::Util::Application& self)
{
    try {
        try {
            startUp(self);
        } catch (const std::bad_alloc&) {
            throw Poco::OutOfMemoryException();  // which the process entry knows
        }
    } catch (...) {
        m_pStartFailure = std::current_exception();
        logger().setLevel("none");  // the process entry reports it; a framework that does so too would repeat it
        throw;
    }
}

void Public_SubProcess::startUp(Poco::Util::Application& self)
{
    // A file that reaches the limit on the size of files is a failed write, not the end of the process.
    (void)::signal(SIGXFSZ, SIG_IGN);
    const int nRet = Utils_EventCacheSubscribe(&m_stEventCacheHndl, PUBLISHER_NAME, nullptr);
    if (nRet != IPC_SUCCESS) {
        Poco::Bugcheck::assertion("nRet == IPC_SUCCESS", __FILE__, SUBSCRIPTION_ASSERTION_LINE);
    }
    m_pMetaDataRecvTask = new Public_MetaDataRecvTask(&m_stEventCacheHndl);
    startTask(m_pMetaDataRecvTask.duplicate());
    if (auto* pSubProcess = dynamic_cast<Public_SubProcess*>(&self)) {
        pSubProcess->addSubsystem(new MetaDataGW::CustomSubSystem());
    }
    Poco::Util::Application::initialize(self);
}

void Public_SubProcess::uninitialize()
{
    try {
        Poco::Util::Application::uninitialize();
    } catch (const std::bad_alloc&) {
        // It names the subsystems to its log, which nobody reads. A stop without memory for that is a stop all the
        // same.
    }
}

int Public_SubProcess::main(const std::vector<std::string>& /*args*/)
{
    // For good: a second signal must not cut the stop short.
    holdStopSignals();
    captureChildSignal();
    LOG(Information, "waitForTerminationRequest sucess!\n");
    waitForTerminationRequest();
    m_exitCode = EXIT_OK;
    return EXIT_OK;
}

bool Public_SubProcess::endTasks() noexcept
{
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + LONGEST_TASK_END;
    try {
        {
            const std::lock_guard<std::mutex> listed(m_listing);
            m_bEnding = true;
            m_taskManager.cancelAll();
        }
        if (!m_pMetaDataRecvTask.isNull()) {
            m_pMetaDataRecvTask->interrupt();
        }
        // The task manager tells of a task's end before it forgets the task, so its count is the only sure sign.
        while (m_taskManager.count() > 0) {
            if (Clock::now() >= deadline) {
                return false;
            }
            Poco::Thread::sleep(TASK_END_STEP);
        }
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace ProtocalProcess

TaskStarter& TaskStarter::of(ProtocalProcess::Public_SubProcess& application)
{
    return application;
}

}  // namespace IPCService
