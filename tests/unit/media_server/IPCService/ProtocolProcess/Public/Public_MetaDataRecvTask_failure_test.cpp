#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/JSON/Object.h>
#include <Poco/Observer.h>
#include <Poco/TaskManager.h>
#include <Poco/TaskNotification.h>
#include <Poco/ThreadPool.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "media_server/IPCService/ProtocolProcess/Public/Public_MetaDataRecvTask_fixture.h"
#include "support/captured_log.h"
#include "support/event_cache.h"
#include "support/log_line.h"
#include "support/system_calls.h"
#include "support/waiting.h"

namespace {

using std::chrono::milliseconds;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;
using Texts = std::vector<std::string>;

const char SOURCE[] = "media_server/IPCService/ProtocolProcess/Public/Public_MetaDataRecvTask";

TEST_F(MetaDataRecvTask, EmptyObjectIsNotPosted)
{
    const Consumer consumer(task->m_notificationCenter);
    start();
    cache.publish("{}");
    cache.publish(" { } ");
    cache.publish(record(1));
    ASSERT_TRUE(consumer.waitForId("1"));
    EXPECT_EQ(consumer.ids(), Texts{"1"});
    EXPECT_TRUE(CapturedLog::records().empty());
}

TEST_F(MetaDataRecvTask, BufferWithoutDataIsLoggedAndReleased)
{
    const Consumer consumer(task->m_notificationCenter);
    start();
    cache.publishBlock(EventCache::block(0, record(1)));
    cache.publish(record(2));
    ASSERT_TRUE(consumer.waitForId("2"));
    EXPECT_EQ(consumer.ids(), Texts{"2"});
    EXPECT_EQ(onlyLine(SOURCE, 3, "stBufData.nDataLen zero!\n"), "stBufData.nDataLen zero!\n");
    EXPECT_FALSE(cache.hasMapping());
}

TEST_F(MetaDataRecvTask, AnswerWithoutBufferDoesNotPostTheLastRecordAgain)
{
    const Consumer consumer(task->m_notificationCenter);
    start();
    cache.publish(record(1));
    cache.notify(EventCache::head(1, 200, 10));
    cache.publish(record(2));
    ASSERT_TRUE(consumer.waitForId("2"));
    EXPECT_EQ(consumer.ids(), (Texts{"1", "2"}));
    EXPECT_EQ(onlyLine(SOURCE, 3, "stBufData.nDataLen zero!\n"), "stBufData.nDataLen zero!\n");
}

/// The counter lives as long as the process, so all that concerns it is one test.
TEST_F(MetaDataRecvTask, FailedGetsGoOnAtOnceAndOneOf500IsLogged)
{
    const char format[] = "Utils_EventCacheBufGet FAIL!\n";
    const Consumer consumer(task->m_notificationCenter);
    start();
    const Stopwatch stopwatch;
    for (int failure = 1; failure <= 500; ++failure) {
        cache.notify(EventCache::head(0, 500, 10));
    }
    cache.publish(record(1));
    ASSERT_TRUE(consumer.waitForId("1"));
    EXPECT_LT(stopwatch.elapsed(), atMost(milliseconds(15000))) << "it pauses";
    EXPECT_EQ(onlyLine(SOURCE, 3, format), format) << "of failures 1 to 500";
    EXPECT_EQ(CapturedLog::withFormat("[%s]:read code err: %d").size(), 500U);

    cache.notify(EventCache::head(0, 500, 10));
    cache.publish(record(2));
    ASSERT_TRUE(consumer.waitForId("2"));
    EXPECT_EQ(CapturedLog::withFormat(format).size(), 2U) << "failure 501";
}

TEST_F(MetaDataRecvTask, HostileNotificationsDoNotEndIt)
{
    const Consumer consumer(task->m_notificationCenter);
    start();
    cache.setBuffer(std::string(55, 'x'));
    cache.notify("x");
    cache.notify(EventCache::head(0, 200, 65535));
    cache.notify(EventCache::notification(55));
    cache.publishBlock(EventCache::block(0xFFFFFFFF, "short"));
    cache.publish(record(1));
    EXPECT_TRUE(consumer.waitForId("1"));
    EXPECT_EQ(consumer.ids(), Texts{"1"});
}

TEST_F(MetaDataRecvTask, MalformedRecordIsLoggedReleasedAndEndsTheTask)
{
    const Consumer consumer(task->m_notificationCenter);
    start();
    cache.publish(R"({"id":)");
    cache.publish(record(2));

    EXPECT_THAT(endedBy<Poco::InvalidAccessException>(), HasSubstr("Can not convert empty value."));
    const std::string line = onlyLine(SOURCE, 3, "PUBLIC_JSON Err %s ");
    EXPECT_THAT(line, AllOf(StartsWith("PUBLIC_JSON Err "), HasSubstr("JSON"), testing::EndsWith(" ")));
    EXPECT_FALSE(cache.hasMapping());
    EXPECT_TRUE(consumer.ids().empty());
    EXPECT_TRUE(cache.hasUnread()) << "no further record is read";
}

TEST_F(MetaDataRecvTask, EmptyTextEndsTheTaskLikeAnyMalformedOne)
{
    const Consumer consumer(task->m_notificationCenter);
    start();
    cache.publish("");
    endedBy<Poco::InvalidAccessException>();
    onlyLine(SOURCE, 3, "PUBLIC_JSON Err %s ");
}

TEST_F(MetaDataRecvTask, RecordTenThousandLevelsDeepEndsTheTaskAndNotTheProcess)
{
    const Consumer consumer(task->m_notificationCenter);
    start();
    cache.publish(std::string(10000, '['));
    endedBy<Poco::InvalidAccessException>();
    onlyLine(SOURCE, 3, "PUBLIC_JSON Err %s ");
}

TEST_F(MetaDataRecvTask, ArrayEndsTheTask)
{
    const Consumer consumer(task->m_notificationCenter);
    start();
    cache.publish(R"([{"id":1}])");

    EXPECT_THAT(endedBy<Poco::BadCastException>(), AllOf(HasSubstr("Can not convert "), HasSubstr(" to ")));
    EXPECT_TRUE(consumer.ids().empty());
    EXPECT_TRUE(CapturedLog::records().empty());
}

TEST_F(MetaDataRecvTask, CancelAloneDoesNotEndIt)
{
    const Consumer consumer(task->m_notificationCenter);
    task->cancel();
    start();
    cache.publish(record(1));
    ASSERT_TRUE(consumer.waitForId("1"));
    task->cancel();
    cache.publish(record(2));
    ASSERT_TRUE(consumer.waitForId("2"));
    EXPECT_FALSE(hasEnded(milliseconds(0)));
}

TEST_F(MetaDataRecvTask, InterruptEndsItWhileItWaitsForRecords)
{
    const Consumer consumer(task->m_notificationCenter);
    start();
    cache.publish(record(1));
    ASSERT_TRUE(consumer.waitForId("1"));
    task->interrupt();
    EXPECT_TRUE(hasEnded(atMost(milliseconds(1000))));
}

TEST_F(MetaDataRecvTask, InterruptEndsItWhileNobodyObserves)
{
    std::atomic<bool> sleeps{false};
    systemCalls().polling = [&sleeps](const pollfd*, nfds_t, int) { sleeps = true; };
    start();
    ASSERT_TRUE(eventually([&sleeps] { return sleeps.load(); }));
    task->interrupt();
    EXPECT_TRUE(hasEnded(atMost(milliseconds(1000))));
    systemCalls().polling = nullptr;
}

TEST_F(MetaDataRecvTask, InterruptBeforeTheStartEndsItAtOnce)
{
    task->interrupt();
    start();
    EXPECT_TRUE(hasEnded(atMost(milliseconds(1000))));
}

/// Keeps what the task manager tells about failed tasks.
class Failures
{
public:
    void take(Poco::TaskFailedNotification* notification)
    {
        const Poco::AutoPtr<Poco::TaskFailedNotification> owned(notification);
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_texts.push_back(notification->task()->name() + ": " + notification->reason().displayText());
    }

    Texts texts() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_texts;
    }

private:
    mutable std::mutex m_mutex;
    Texts m_texts;
};

TEST_F(MetaDataRecvTask, TaskManagerToldOfTheFailureAndThePoolStaysUsable)
{
    Failures failures;
    const Consumer consumer(task->m_notificationCenter);
    Poco::ThreadPool pool(1, 1);
    Poco::TaskManager manager(pool);
    const Poco::Observer<Failures, Poco::TaskFailedNotification> observer(failures, &Failures::take);
    manager.addObserver(observer);
    manager.start(task.duplicate());
    cache.publish("not json");
    ASSERT_TRUE(eventually([&manager] { return manager.count() == 0; }));
    ASSERT_EQ(failures.texts().size(), 1U);
    EXPECT_THAT(failures.texts()[0],
                AllOf(StartsWith("MetaDataRecvTask: "), HasSubstr("Can not convert empty value.")));
    manager.removeObserver(observer);

    pool.joinAll();
    EXPECT_EQ(pool.available(), 1);
}

}  // namespace
