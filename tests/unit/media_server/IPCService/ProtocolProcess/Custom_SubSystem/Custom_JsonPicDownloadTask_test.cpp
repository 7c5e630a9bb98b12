#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonPicDownloadTask.h"

#include <Poco/AutoPtr.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "download_fixture.h"

using namespace IPCService::MetaDataGW;

namespace {

constexpr char LOG_FILE[] = "Custom_JsonPicDownloadTask";

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

    /** Starts the task, cancels it once it waits, and expects it to end within a second, free for the next. */
    void expectQuickCancel(const std::function<bool()>& waits)
    {
        Task task = makeTask();
        m_service.app().startTask(task.duplicate());
        EXPECT_TRUE(eventually(waits));
        EXPECT_TRUE(busy());
        const Stopwatch watch;
        task->cancel();
        EXPECT_TRUE(eventually([&] { return !busy() && task->state() == Poco::Task::TASK_FINISHED; }));
        EXPECT_LT(watch.elapsed(), atMost(std::chrono::seconds(1)));
        EXPECT_EQ(countLogged(LOG_FILE, "CustomJsonPicDownloadTask Err %s "), 0);
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

TEST_F(JsonPicDownloadTaskTest, DownloadsWhatTheRecordOrders)
{
    makeTask()->runTask();
    EXPECT_EQ(m_platform.bodies(), (std::vector<std::string>{pageRequest(0, 30), resultDocument(0, 30),
                                                             pageRequest(30, 1), resultDocument(30, 1)}));
}

TEST_F(JsonPicDownloadTaskTest, CopiesEveryField)
{
    m_record.totalNum = 0;
    makeTask()->runTask();
    const DownloadTaskParam& copy = m_service.subSystem().m_downloadTask.m_downloadTaskParam;
    EXPECT_EQ(copy.ServerIp, "127.0.0.1");
    EXPECT_EQ(copy.ServerPort, m_platform.port());
    EXPECT_EQ(copy.ServerUri, "/page");
    EXPECT_EQ(copy.ResultUri, "/result");
    EXPECT_EQ(copy.securityCode, "S1");
    EXPECT_EQ(copy.cameraCode, "C1");
    EXPECT_EQ(copy.taskID, "T1");
    EXPECT_EQ(copy.totalNum, 0U);
    EXPECT_EQ(copy.sqbh, "Q1");
    EXPECT_EQ(copy.datatime, "D1");
}

TEST_F(JsonPicDownloadTaskTest, LogsBeginAndEndAroundAnEmptyDownload)
{
    m_record.totalNum = 0;
    makeTask()->runTask();
    EXPECT_EQ(loggedBy(LOG_FILE),
              (std::vector<LogLine>{info("CustomJsonPicDownloadTask Begin "), info("CustomJsonPicDownloadTask End ")}));
    EXPECT_EQ(m_platform.accepted(), 0);
    EXPECT_TRUE(m_itgt.requests().empty());
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

TEST_F(JsonPicDownloadTaskTest, FailedPageEndsItLikeSuccess)
{
    m_record.ServerPort = unusedPort();
    makeTask()->runTask();
    EXPECT_FALSE(busy());
    EXPECT_EQ(loggedBy(LOG_FILE),
              (std::vector<LogLine>{info("CustomJsonPicDownloadTask Begin "), info("CustomJsonPicDownloadTask End ")}));
}

TEST_F(JsonPicDownloadTaskTest, ExceptionEndsItAndIsLogged)
{
    m_itgtScript = [](const std::string& request) {
        const std::string reply = importAtOnce(request);
        // The next exchange cannot bind its socket. The client of this one is still bound under its old name.
        EXPECT_EQ(rename("/tmp/CP", "/tmp/CP.moved"), 0);
        std::filesystem::create_directories("/tmp/CP/in the way");
        const UnixSocket replier;
        replier.send("/tmp/CP.moved", reply);
        return "";
    };
    makeTask()->runTask();
    EXPECT_FALSE(busy());
    const std::vector<LogLine> lines = loggedBy(LOG_FILE);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0], info("CustomJsonPicDownloadTask Begin "));
    EXPECT_EQ(lines[1], error("CustomJsonPicDownloadTask Err %s ", lines[1].text));
    EXPECT_NE(lines[1].text.find("CustomJsonPicDownloadTask Err Net Exception: Address already in use"),
              std::string::npos)
        << lines[1].text;
}

TEST_F(JsonPicDownloadTaskTest, RunsOnTheTaskManager)
{
    Task task = makeTask();
    m_service.app().startTask(task.duplicate());
    EXPECT_TRUE(CapturedLog::waitForFormat("CustomJsonPicDownloadTask End "));
    EXPECT_EQ(m_platform.accepted(), 4);
    EXPECT_FALSE(busy());
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
    m_record.totalNum = 0;
    Task task = makeTask();
    task->runTask();
    task->cancel();
    expectNextDownloadRuns();
}

TEST_F(JsonPicDownloadTaskTest, CancelWakesTheWaitForASilentItgt)
{
    m_itgtScript = [](const std::string&) { return ""; };
    expectQuickCancel([this] { return m_itgt.requests(7020).size() == 1; });
}

TEST_F(JsonPicDownloadTaskTest, CancelWakesThePauseBetweenTries)
{
    m_itgtScript = [](const std::string& request) {
        return commandOf(request) == 7021 ? progressReply(0, "/tmp/state.json") : importAtOnce(request);
    };
    expectQuickCancel([] { return countLogged("Custom_DownloadPictureProcObj", "Not Ready, try ") == 1; });
}

TEST_F(JsonPicDownloadTaskTest, CancelWakesThePauseBetweenPages)
{
    m_service.subSystem().m_downloadTask.m_bNoPageDelay = 0;
    expectQuickCancel([this] { return m_platform.bodies().size() == 2; });
}

TEST_F(JsonPicDownloadTaskTest, CancelWakesTheWaitForASilentPlatform)
{
    m_platformScript = [](TlsConnection& connection, const std::string&) { connection.waitUntilClientLeaves(); };
    expectQuickCancel([this] { return m_platform.requests().size() == 1; });
}

}  // namespace
