#include "media_server/IPCService/ProtocolProcess/Public/Public_MetaDataRecvTask.h"

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/JSON/Object.h>
#include <Poco/NObserver.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <exception>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "media_server/IPCService/ProtocolProcess/Public/MetaDataNotification.h"
#include "media_server/IPCService/Public/MetaDataJsonKey.h"
#include "support/captured_log.h"
#include "support/event_cache.h"
#include "support/log_line.h"
#include "support/system_calls.h"
#include "support/waiting.h"

namespace {

using IPCService::MetaDataGW::MetaDataNotification;
using IPCService::ProtocalProcess::Public_MetaDataRecvTask;
using std::chrono::milliseconds;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;
using Texts = std::vector<std::string>;

const char SOURCE[] = "media_server/IPCService/ProtocolProcess/Public/Public_MetaDataRecvTask";
const char EMPTY[] = "stBufData.nDataLen zero!\n";

/// A record with an "id".
std::string record(int id)
{
    return R"({"id":)" + std::to_string(id) + "}";
}

/// A consumer that keeps the value of "id" of each record.
class Consumer
{
public:
    explicit Consumer(Poco::NotificationCenter& center) : m_center(center)
    {
        m_center.addObserver(Poco::NObserver<Consumer, MetaDataNotification>(*this, &Consumer::take));
    }
    ~Consumer() { m_center.removeObserver(Poco::NObserver<Consumer, MetaDataNotification>(*this, &Consumer::take)); }
    Consumer(const Consumer&) = delete;
    Consumer& operator=(const Consumer&) = delete;

    Texts ids() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_ids;
    }

    /// Waits for the last of these records, and expects that no others came.
    void expectIds(const Texts& expected) const
    {
        EXPECT_TRUE(eventually([&] { return !ids().empty() && ids().back() == expected.back(); }));
        EXPECT_EQ(ids(), expected);
    }

    /// The thread of the last record.
    std::thread::id thread() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_thread;
    }

    /// Is called with each record, before it is kept.
    std::function<void(const Poco::JSON::Object&)> onRecord;

private:
    void take(const Poco::AutoPtr<MetaDataNotification>& notification)
    {
        if (onRecord) {
            onRecord(*notification->m_pObject);
        }
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ids.push_back(notification->m_pObject->optValue<std::string>("id", "none"));
        m_thread = std::this_thread::get_id();
    }

    Poco::NotificationCenter& m_center;
    mutable std::mutex m_mutex;
    Texts m_ids;
    std::thread::id m_thread;
};

/// A task over a played event cache; a test starts it and need not end it.
class UnobservedMetaDataRecvTask : public testing::Test
{
protected:
    UnobservedMetaDataRecvTask()
    {
        handle.nEventFd = cache.eventDescriptor();
        handle.nCacheFd = cache.cacheDescriptor();
    }

    ~UnobservedMetaDataRecvTask() override
    {
        task->interrupt();
        if (m_thread.joinable()) {
            m_thread.join();
        }
        EXPECT_FALSE(cache.hasMapping()) << "a buffer was not released";
    }

    void start()
    {
        m_thread = std::thread([this] {
            threadId = std::this_thread::get_id();
            try {
                task->runTask();
                m_ended.set_value();
            } catch (...) {
                m_ended.set_exception(std::current_exception());
            }
        });
    }

    bool hasEnded(std::chrono::milliseconds deadline = DEADLINE)
    {
        return m_end.wait_for(deadline) == std::future_status::ready;
    }

    /// Waits for the end. @return the text of the exception of this class that ended the task
    template <typename Exception>
    std::string endedBy()
    {
        EXPECT_TRUE(hasEnded()) << "the task still runs";
        try {
            m_end.get();
            ADD_FAILURE() << "ended without exception";
        } catch (const Exception& exc) {
            return exc.displayText();
        }
        return "";
    }

    EventCache cache;
    EventCacheHndl handle = {};
    Poco::AutoPtr<Public_MetaDataRecvTask> task{new Public_MetaDataRecvTask(&handle)};
    std::atomic<std::thread::id> threadId{std::thread::id()};

private:
    std::promise<void> m_ended;
    std::future<void> m_end = m_ended.get_future();
    std::thread m_thread;
};

/// The task runs and has a consumer.
class MetaDataRecvTask : public UnobservedMetaDataRecvTask
{
protected:
    MetaDataRecvTask() { start(); }

    Consumer consumer{task->m_notificationCenter};
};

TEST_F(UnobservedMetaDataRecvTask, HasItsName)
{
    EXPECT_EQ(task->name(), "MetaDataRecvTask");
}

TEST_F(UnobservedMetaDataRecvTask, NullHandleFailsTheAssertion)
{
    Poco::AutoPtr<Public_MetaDataRecvTask> broken(new Public_MetaDataRecvTask(nullptr));
    try {
        broken->runTask();
        FAIL() << "nothing thrown";
    } catch (const Poco::AssertionViolationException& exc) {
        EXPECT_THAT(exc.message(), HasSubstr("m_pstEventCacheHndl != NULL"));
    }
}

TEST_F(UnobservedMetaDataRecvTask, WithoutObserverItWakesOnceASecondAndLeavesWhatWaitsToALaterOne)
{
    std::vector<Stopwatch> sleeps;
    std::atomic<int> count{0};
    systemCalls().polling = [&sleeps, &count, self = std::this_thread::get_id()](const pollfd*, nfds_t, int) {
        if (std::this_thread::get_id() != self) {
            sleeps.emplace_back();
            ++count;
        }
    };
    cache.publish(record(1));
    start();
    ASSERT_TRUE(eventually([&count] { return count >= 3; }));
    EXPECT_TRUE(cache.hasUnread());
    EXPECT_TRUE(cache.mapRequests().empty());
    EXPECT_TRUE(CapturedLog::records().empty());

    const Consumer consumer(task->m_notificationCenter);
    consumer.expectIds({"1"});
    task->interrupt();
    ASSERT_TRUE(hasEnded());
    systemCalls().polling = nullptr;
    const milliseconds between = sleeps[0].elapsed() - sleeps[2].elapsed();
    EXPECT_GE(between, milliseconds(1990));
    EXPECT_LT(between, atMost(milliseconds(5000)));
}

TEST_F(UnobservedMetaDataRecvTask, ClosedEventNodeFailsAtOnceAndIsTriedAgain)
{
    handle.nEventFd = -1;
    std::atomic<int> pauses{0};
    systemCalls().usleep = [&pauses](useconds_t microseconds) {
        EXPECT_EQ(microseconds, 200000U);
        ++pauses;
    };
    const Consumer consumer(task->m_notificationCenter);
    start();
    EXPECT_TRUE(eventually([&pauses] { return pauses >= 3; }));
    task->interrupt();
    ASSERT_TRUE(hasEnded());
    systemCalls().usleep = nullptr;
    EXPECT_FALSE(CapturedLog::withFormat("Utils_EventCacheBufGet FAIL!\n").empty());
}

TEST_F(MetaDataRecvTask, RecordsArriveInOrderOnTheTasksThread)
{
    Texts expected;
    for (int id = 1; id <= 20; ++id) {
        cache.publish(record(id));
        expected.push_back(std::to_string(id));
    }
    consumer.expectIds(expected);
    EXPECT_EQ(consumer.thread(), threadId.load());
    EXPECT_TRUE(CapturedLog::records().empty());
}

TEST_F(MetaDataRecvTask, RecordCarriesTheWholeParsedObjectWhenItsBufferIsReleased)
{
    std::string plate;
    std::string speed;
    std::size_t size = 0;
    bool mapped = true;
    consumer.onRecord = [&](const Poco::JSON::Object& object) {
        plate = object.getValue<std::string>(IPCService::MetaDataGW::MetaDataJsonKey::PLATE_CHAR);
        speed = object.getObject("TrackObject")->getValue<std::string>("ObjSpeed");
        size = object.getValue<std::string>("Pic").size();
        mapped = cache.hasMapping();
    };
    cache.publish("{\"PlateChar\":\"\xE4\xBA\xAC/A 1\",\"TrackObject\":{\"ObjSpeed\":-12},\"id\":5,\"Pic\":\"" +
                  std::string(300000, 'p') + "\"}");
    consumer.expectIds({"5"});
    EXPECT_EQ(plate, "\xE4\xBA\xAC/A 1");
    EXPECT_EQ(speed, "-12");
    EXPECT_EQ(size, 300000U);
    EXPECT_FALSE(mapped);
}

TEST_F(MetaDataRecvTask, TextEndsAtItsNulWhateverTheDataLength)
{
    const std::string third = record(3) + '\0';
    cache.publishBlock(EventCache::block(1, record(1) + '\0' + "{garbage"));
    cache.publishBlock(EventCache::block(40, record(2) + '\0' + std::string(31, '}')));
    cache.publishBlock(EventCache::block(static_cast<std::uint32_t>(third.size()), "olderone" + third));
    consumer.expectIds({"1", "2", "3"});
}

TEST_F(MetaDataRecvTask, TextWithoutNulEndsWithTheMapping)
{
    for (const std::size_t spaces : {0U, 40U, 4031U, 10000U}) {
        const std::string text = record(1) + std::string(spaces, ' ');
        cache.publishBlock(EventCache::block(static_cast<std::uint32_t>(text.size()), text));
    }
    cache.publish(record(2));
    consumer.expectIds({"1", "1", "1", "1", "2"});
}

TEST_F(MetaDataRecvTask, EmptyObjectIsNotPosted)
{
    cache.publish("{}");
    cache.publish(" { } ");
    cache.publish(record(1));
    consumer.expectIds({"1"});
    EXPECT_TRUE(CapturedLog::records().empty());
}

TEST_F(MetaDataRecvTask, BufferWithoutDataIsLoggedAndReleased)
{
    cache.publishBlock(EventCache::block(0, record(1)));
    cache.publish(record(2));
    consumer.expectIds({"2"});
    EXPECT_EQ(onlyLine(SOURCE, 3, EMPTY), EMPTY);
    EXPECT_FALSE(cache.hasMapping());
}

TEST_F(MetaDataRecvTask, AnswerWithoutBufferDoesNotPostTheLastRecordAgain)
{
    cache.publish(record(1));
    cache.notify(EventCache::head(1, 200, 10));
    cache.publish(record(2));
    consumer.expectIds({"1", "2"});
    EXPECT_EQ(onlyLine(SOURCE, 3, EMPTY), EMPTY);
}

/// The counter lives as long as the process, so all that concerns it is one test.
TEST_F(MetaDataRecvTask, FailedGetsGoOnAtOnceAndOneOf500IsLogged)
{
    const char format[] = "Utils_EventCacheBufGet FAIL!\n";
    const Stopwatch stopwatch;
    for (int failure = 1; failure <= 500; ++failure) {
        cache.notify(EventCache::head(0, 500, 10));
    }
    cache.publish(record(1));
    consumer.expectIds({"1"});
    EXPECT_LT(stopwatch.elapsed(), atMost(milliseconds(15000))) << "it pauses";
    EXPECT_EQ(onlyLine(SOURCE, 3, format), format) << "of failures 1 to 500";
    EXPECT_EQ(CapturedLog::withFormat("[%s]:read code err: %d").size(), 500U);

    cache.notify(EventCache::head(0, 500, 10));
    cache.publish(record(2));
    consumer.expectIds({"1", "2"});
    EXPECT_EQ(CapturedLog::withFormat(format).size(), 2U) << "failure 501";
}

TEST_F(MetaDataRecvTask, HostileNotificationsDoNotEndIt)
{
    cache.setBuffer(std::string(55, 'x'));
    cache.notify("x");
    cache.notify(EventCache::head(0, 200, 65535));
    cache.notify(EventCache::notification(55));
    cache.publishBlock(EventCache::block(0xFFFFFFFF, "short"));
    cache.publish(record(1));
    consumer.expectIds({"1"});
}

class MalformedRecord : public MetaDataRecvTask, public testing::WithParamInterface<std::string>
{
};

TEST_P(MalformedRecord, IsLoggedReleasedAndEndsTheTaskAndNotTheProcess)
{
    cache.publish(GetParam());
    cache.publish(record(2));

    EXPECT_THAT(endedBy<Poco::InvalidAccessException>(), HasSubstr("Can not convert empty value."));
    EXPECT_THAT(onlyLine(SOURCE, 3, "PUBLIC_JSON Err %s "),
                AllOf(StartsWith("PUBLIC_JSON Err "), HasSubstr("JSON"), testing::EndsWith(" ")));
    EXPECT_FALSE(cache.hasMapping());
    EXPECT_TRUE(consumer.ids().empty());
    EXPECT_TRUE(cache.hasUnread()) << "no further record is read";
}

INSTANTIATE_TEST_SUITE_P(All, MalformedRecord,
                         testing::Values(R"({"id":)", "", std::string(10000, '[') /* too deep a nest */));

TEST_F(MetaDataRecvTask, ArrayEndsTheTask)
{
    cache.publish(R"([{"id":1}])");
    EXPECT_THAT(endedBy<Poco::BadCastException>(), AllOf(HasSubstr("Can not convert "), HasSubstr(" to ")));
    EXPECT_TRUE(consumer.ids().empty());
    EXPECT_TRUE(CapturedLog::records().empty());
}

TEST_F(MetaDataRecvTask, InterruptEndsItWhileItWaitsForRecordsAndCancelDoesNot)
{
    task->cancel();
    cache.publish(record(1));
    consumer.expectIds({"1"});
    EXPECT_FALSE(hasEnded(milliseconds(0)));
    task->interrupt();
    EXPECT_TRUE(hasEnded(atMost(milliseconds(1000))));
}

TEST_F(UnobservedMetaDataRecvTask, InterruptBeforeTheStartEndsItAtOnce)
{
    task->interrupt();
    start();
    EXPECT_TRUE(hasEnded(atMost(milliseconds(1000))));
}

}  // namespace
