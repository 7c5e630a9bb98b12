#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonPicDownloadTask.h"

#include <Poco/AutoPtr.h>
#include <Poco/Observer.h>
#include <Poco/TaskManager.h>
#include <Poco/TaskNotification.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "download_fixture.h"

using namespace IPCService::MetaDataGW;

namespace {

constexpr char LOG_FILE[] = "Custom_JsonPicDownloadTask";

/** Fails when it is told of a task's start. */
struct NoMemoryAtTheStart
{
    void fail(Poco::TaskStartedNotification* notification)
    {
        notification->release();
        throw std::bad_alloc();
    }
};

/** The task of one accepted command, on the application's task manager or on the test's own thread. */
class JsonPicDownloadTaskTest : public DownloadTest
{
protected:
    using Task = Poco::AutoPtr<CustomJsonPicDownloadTask>;

    Task makeTask()
    {
        Task task(new CustomJsonPicDownloadTask(&m_service.subSystem(), &m_record));
        m_tasks.emplace_back(task);
        return task;
    }

    bool busy() { return isBusy(m_service.subSystem().m_bDownloading); }

    /** Starts the task, cancels it once it waits, and expects it to end there, free for the next. One that waited to
       the end would go on with its download, and say that it has ended. */
    void expectEndByCancel(const std::function<bool()>& waits)
    {
        Task task = makeTask();
        m_service.app().startTask(task.duplicate());
        EXPECT_TRUE(eventually(waits));
        EXPECT_TRUE(busy());
        task->cancel();
        EXPECT_TRUE(eventually([&] { return !busy() && task->state() == Poco::Task::TASK_FINISHED; }));
        EXPECT_EQ(loggedBy(LOG_FILE), std::vector<LogLine>{info("CustomJsonPicDownloadTask Begin ")});
        expectNextDownloadRuns();
    }

    void expectNextDownloadRuns()
    {
        CapturedLog::clear();
        m_record.totalNum = 0;
        Task task = makeTask();
        m_service.app().startTask(task.duplicate());
        EXPECT_TRUE(CapturedLog::waitForFormat("CustomJsonPicDownloadTask End "));
    }

    DownloadTaskParam m_record = task(31);
};

TEST_F(JsonPicDownloadTaskTest, HasItsName)
{
    EXPECT_EQ(makeTask()->name(), "Json pic download Task");
}

TEST_F(JsonPicDownloadTaskTest, IsBusyFromItsBeginToItsEnd)
{
    std::atomic<int> timesBusy{0};
    m_itgtScript = [&](const std::string& request) {
        timesBusy += busy() ? 1 : 0;
        return importAtOnce(request);
    };
    EXPECT_FALSE(busy());
    makeTask()->runTask();
    EXPECT_EQ(timesBusy, 6);
    EXPECT_FALSE(busy());
}

TEST_F(JsonPicDownloadTaskTest, WhoseManagerHasNoMemoryToTellOfItsStartIsLoggedAndNotBusy)
{
    NoMemoryAtTheStart observer;
    Poco::TaskManager manager;
    manager.addObserver(
        Poco::Observer<NoMemoryAtTheStart, Poco::TaskStartedNotification>(observer, &NoMemoryAtTheStart::fail));
    manager.start(makeTask().duplicate());
    EXPECT_TRUE(CapturedLog::waitForFormat("CustomJsonPicDownloadTask Err %s "));
    EXPECT_FALSE(busy());
    EXPECT_EQ(m_platform.accepted(), 0);
}

TEST_F(JsonPicDownloadTaskTest, TaskThatHasEndedDoesNotClearTheMarkOfTheNext)
{
    m_record.totalNum = 0;
    Task first = makeTask();
    first->runTask();
    const Task second = makeTask();
    EXPECT_TRUE(busy());
    first->run();
    m_tasks.front() = nullptr;
    first = nullptr;
    EXPECT_TRUE(busy());
}

TEST_F(JsonPicDownloadTaskTest, TaskThatNeverRanIsBusyToItsOwnEndOnly)
{
    {
        const Task never(new CustomJsonPicDownloadTask(&m_service.subSystem(), &m_record));
        EXPECT_TRUE(busy());
    }
    EXPECT_FALSE(busy());
}

TEST_F(JsonPicDownloadTaskTest, LaterCommandDoesNotChangeARunningDownload)
{
    m_itgtScript = [this](const std::string& request) {
        m_record.taskID = "another";
        m_record.ServerPort = 1;
        m_record.totalNum = 1000;
        return importAtOnce(request);
    };
    makeTask()->runTask();
    EXPECT_EQ(m_platform.bodies(), (std::vector<std::string>{pageRequest(0, 30), resultDocument(0, 30),
                                                             pageRequest(30, 1), resultDocument(30, 1)}));
}

TEST_F(JsonPicDownloadTaskTest, CancelBeforeItRunsEndsItAtItsFirstWait)
{
    Task task = makeTask();
    task->cancel();
    EXPECT_TRUE(task->isCancelled());
    task->runTask();
    EXPECT_FALSE(busy());
    EXPECT_TRUE(m_platform.requests().empty());
}

TEST_F(JsonPicDownloadTaskTest, CancelAfterItsEndDoesNothing)
{
    m_record = task(1);
    Task ended = makeTask();
    ended->runTask();
    ended->cancel();
    makeTask()->runTask();
    EXPECT_EQ(m_platform.bodies(), (std::vector<std::string>{pageRequest(0, 1), resultDocument(0, 1), pageRequest(0, 1),
                                                             resultDocument(0, 1)}));
}

TEST_F(JsonPicDownloadTaskTest, CancelWakesThePauseBetweenPages)
{
    m_service.subSystem().m_downloadTask.m_bNoPageDelay = 0;
    expectEndByCancel([this] { return m_platform.bodies().size() == 2; });
}

TEST_F(JsonPicDownloadTaskTest, CancelWakesTheWaitForASilentPlatform)
{
    m_platformScript = [](TlsConnection& connection, const std::string&) { connection.waitUntilClientLeaves(); };
    expectEndByCancel([this] { return m_platform.requests().size() == 1; });
}

}  // namespace
