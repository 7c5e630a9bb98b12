#include "media_server/IPCService/ProtocolProcess/Public/Public_MetaDataRecvTask.h"

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/JSON/Object.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "media_server/IPCService/ProtocolProcess/Public/Public_MetaDataRecvTask_fixture.h"
#include "media_server/IPCService/Public/MetaDataJsonKey.h"
#include "support/captured_log.h"
#include "support/event_cache.h"
#include "support/log_line.h"
#include "support/system_calls.h"
#include "support/waiting.h"

namespace {

using IPCService::ProtocalProcess::Public_MetaDataRecvTask;
using std::chrono::milliseconds;
using testing::HasSubstr;
using Texts = std::vector<std::string>;

TEST_F(MetaDataRecvTask, HasItsName)
{
    EXPECT_EQ(task->name(), "MetaDataRecvTask");
}

TEST_F(MetaDataRecvTask, NullHandleFailsTheAssertion)
{
    Poco::AutoPtr<Public_MetaDataRecvTask> broken(new Public_MetaDataRecvTask(nullptr));
    try {
        broken->runTask();
        FAIL() << "nothing thrown";
    } catch (const Poco::AssertionViolationException& exc) {
        EXPECT_THAT(exc.message(), HasSubstr("m_pstEventCacheHndl != NULL"));
    }
}

TEST_F(MetaDataRecvTask, WithoutObserverItWakesOnceASecondAndReadsNothing)
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
    task->interrupt();
    ASSERT_TRUE(hasEnded());
    systemCalls().polling = nullptr;

    const milliseconds between = sleeps[0].elapsed() - sleeps[2].elapsed();
    EXPECT_GE(between, milliseconds(1990));
    EXPECT_LT(between, atMost(milliseconds(5000)));
    EXPECT_TRUE(cache.hasUnread());
    EXPECT_TRUE(cache.mapRequests().empty());
    EXPECT_TRUE(CapturedLog::records().empty());
}

TEST_F(MetaDataRecvTask, ClosedEventNodeFailsAtOnceAndIsTriedAgain)
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

TEST_F(MetaDataRecvTask, ObserverThatComesLaterGetsWhatWaits)
{
    std::atomic<bool> sleeps{false};
    systemCalls().polling = [&sleeps](const pollfd*, nfds_t, int) { sleeps = true; };
    cache.publish(record(7));
    start();
    ASSERT_TRUE(eventually([&sleeps] { return sleeps.load(); }));
    const Consumer consumer(task->m_notificationCenter);
    EXPECT_TRUE(consumer.waitForId("7"));
    task->interrupt();
    ASSERT_TRUE(hasEnded());
    systemCalls().polling = nullptr;
}

TEST_F(MetaDataRecvTask, RecordsArriveInOrderOnTheTasksThread)
{
    const Consumer consumer(task->m_notificationCenter);
    start();
    Texts expected;
    for (int id = 1; id <= 20; ++id) {
        cache.publish(record(id));
        expected.push_back(std::to_string(id));
    }
    ASSERT_TRUE(consumer.waitForId("20"));
    EXPECT_EQ(consumer.ids(), expected);
    EXPECT_EQ(consumer.thread(), threadId.load());
    EXPECT_TRUE(CapturedLog::records().empty());
}

TEST_F(MetaDataRecvTask, EveryObserverGetsEachRecord)
{
    const Consumer first(task->m_notificationCenter);
    const Consumer second(task->m_notificationCenter);
    start();
    cache.publish(record(1));
    EXPECT_TRUE(first.waitForId("1"));
    EXPECT_TRUE(second.waitForId("1"));
}

TEST_F(MetaDataRecvTask, RecordCarriesTheParsedObject)
{
    Consumer consumer(task->m_notificationCenter);
    std::string plate;
    std::string speed;
    consumer.onRecord = [&plate, &speed](const Poco::JSON::Object& object) {
        plate = object.getValue<std::string>(IPCService::MetaDataGW::MetaDataJsonKey::PLATE_CHAR);
        speed = object.getObject("TrackObject")->getValue<std::string>("ObjSpeed");
    };
    start();
    cache.publish("{\"PlateChar\":\"\xE4\xBA\xAC/A 1\",\"TrackObject\":{\"ObjSpeed\":-12},\"id\":5}");
    ASSERT_TRUE(consumer.waitForId("5"));
    EXPECT_EQ(plate, "\xE4\xBA\xAC/A 1");
    EXPECT_EQ(speed, "-12");
}

TEST_F(MetaDataRecvTask, BufferIsReleasedBeforeTheRecordIsUsed)
{
    Consumer consumer(task->m_notificationCenter);
    bool mapped = true;
    consumer.onRecord = [this, &mapped](const Poco::JSON::Object&) { mapped = cache.hasMapping(); };
    start();
    cache.publish(record(1));
    ASSERT_TRUE(consumer.waitForId("1"));
    EXPECT_FALSE(mapped);
}

TEST_F(MetaDataRecvTask, TextEndsAtItsNulWhateverTheDataLength)
{
    const Consumer consumer(task->m_notificationCenter);
    start();
    cache.publishBlock(EventCache::block(1, record(1) + '\0' + "{garbage"));
    cache.publishBlock(EventCache::block(40, record(2) + '\0' + std::string(31, '}')));
    ASSERT_TRUE(consumer.waitForId("2"));
    EXPECT_EQ(consumer.ids(), (Texts{"1", "2"}));
}

TEST_F(MetaDataRecvTask, TextWithoutNulEndsWithTheMapping)
{
    const Consumer consumer(task->m_notificationCenter);
    start();
    for (const std::size_t blanks : {0U, 40U, 4031U, 10000U}) {
        const std::string text = record(1) + std::string(blanks, ' ');
        cache.publishBlock(EventCache::block(static_cast<std::uint32_t>(text.size()), text));
    }
    cache.publish(record(2));
    ASSERT_TRUE(consumer.waitForId("2"));
    EXPECT_EQ(consumer.ids(), (Texts{"1", "1", "1", "1", "2"}));
}

TEST_F(MetaDataRecvTask, OlderProducersAreRead)
{
    const Consumer consumer(task->m_notificationCenter);
    start();
    const std::string text = record(1) + '\0';
    cache.publishBlock(EventCache::block(static_cast<std::uint32_t>(text.size()), "12345678" + text));
    EXPECT_TRUE(consumer.waitForId("1"));
}

TEST_F(MetaDataRecvTask, LongRecordsAreReadWhole)
{
    Consumer consumer(task->m_notificationCenter);
    std::size_t size = 0;
    consumer.onRecord = [&size](const Poco::JSON::Object& object) {
        size = object.getValue<std::string>("Pic").size();
    };
    start();
    cache.publish(R"({"Pic":")" + std::string(300000, 'p') + R"(","id":1})");
    ASSERT_TRUE(consumer.waitForId("1"));
    EXPECT_EQ(size, 300000U);
}

}  // namespace
