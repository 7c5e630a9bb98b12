#ifndef TESTS_UNIT_PUBLIC_METADATARECVTASK_FIXTURE_H
#define TESTS_UNIT_PUBLIC_METADATARECVTASK_FIXTURE_H

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/JSON/Object.h>
#include <Poco/NObserver.h>
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
#include "media_server/IPCService/ProtocolProcess/Public/Public_MetaDataRecvTask.h"
#include "support/event_cache.h"
#include "support/waiting.h"

/// A consumer that keeps the value of "id" of each record.
class Consumer
{
public:
    explicit Consumer(Poco::NotificationCenter& center) : m_center(center)
    {
        m_center.addObserver(
            Poco::NObserver<Consumer, IPCService::MetaDataGW::MetaDataNotification>(*this, &Consumer::take));
    }
    ~Consumer()
    {
        m_center.removeObserver(
            Poco::NObserver<Consumer, IPCService::MetaDataGW::MetaDataNotification>(*this, &Consumer::take));
    }
    Consumer(const Consumer&) = delete;
    Consumer& operator=(const Consumer&) = delete;

    std::vector<std::string> ids() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_ids;
    }

    bool waitForId(const std::string& id) const
    {
        return eventually([this, &id] { return !ids().empty() && ids().back() == id; });
    }

    /// The thread of the last record.
    std::thread::id thread() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_thread;
    }

    /// Is called with each record's text, before it is kept.
    std::function<void(const Poco::JSON::Object&)> onRecord;

private:
    void take(const Poco::AutoPtr<IPCService::MetaDataGW::MetaDataNotification>& notification)
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
    std::vector<std::string> m_ids;
    std::thread::id m_thread;
};

/// A task over a played event cache; a test starts it and need not end it.
class MetaDataRecvTask : public testing::Test
{
protected:
    MetaDataRecvTask()
    {
        handle.nEventFd = cache.eventDescriptor();
        handle.nCacheFd = cache.cacheDescriptor();
    }

    ~MetaDataRecvTask() override
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
    Poco::AutoPtr<IPCService::ProtocalProcess::Public_MetaDataRecvTask> task{
        new IPCService::ProtocalProcess::Public_MetaDataRecvTask(&handle)};
    std::atomic<std::thread::id> threadId{std::thread::id()};

private:
    std::promise<void> m_ended;
    std::future<void> m_end = m_ended.get_future();
    std::thread m_thread;
};

/// A record with an "id".
inline std::string record(int id)
{
    return R"({"id":)" + std::to_string(id) + "}";
}

#endif
