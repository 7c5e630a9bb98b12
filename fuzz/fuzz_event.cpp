/// Event notification and mapped buffer. The parts of an input are notification, buffer, notification, buffer, ...
#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/NObserver.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "harness.h"
#include "input.h"
#include "media_server/IPCService/ProtocolProcess/Public/MetaDataNotification.h"
#include "media_server/IPCService/ProtocolProcess/Public/Public_MetaDataRecvTask.h"
#include "media_server/IPCService/Public/JsonText.h"
#include "oracle.h"
#include "support/event_cache.h"

namespace {

using IPCService::MetaDataGW::MetaDataNotification;
using IPCService::ProtocalProcess::Public_MetaDataRecvTask;

EventCache& playedCache()
{
    static EventCache& cache = *new EventCache;
    return cache;
}

/// A consumer of the metadata, which uses every part of a record.
class Consumer
{
public:
    void take(const Poco::AutoPtr<MetaDataNotification>& notification)
    {
        const std::string text = IPCService::JsonText::compact(*notification->m_pObject);
        require(!text.empty() && text.front() == '{' && isJson(text), "a record is a JSON object", text);
        require(!playedCache().hasMapping(), "a buffer is released before its record is posted");
    }
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::vector<std::string> parts = partsOf(data, size);
    Harness& harness = Harness::instance();
    EventCache& cache = playedCache();
    harness.begin();
    std::size_t taken = 0;
    harness.giveInput = [&] {
        require(!cache.hasMapping(), "a buffer is released before the next is waited for");
        if (taken >= parts.size()) {
            return false;
        }
        cache.setBuffer(taken + 1 < parts.size() ? parts[taken + 1] : "");
        cache.notify(parts[taken]);
        taken += 2;
        return true;
    };
    EventCacheHndl handle = {cache.eventDescriptor(), cache.cacheDescriptor(), ""};
    Poco::AutoPtr<Public_MetaDataRecvTask> pTask(new Public_MetaDataRecvTask(&handle));
    Consumer consumer;
    pTask->m_notificationCenter.addObserver(Poco::NObserver<Consumer, MetaDataNotification>(consumer, &Consumer::take));
    try {
        pTask->runTask();
        require(harness.isInterrupted(), "the task ends by an interruption or an exception");
    } catch (const Poco::Exception&) {
        // A record that is no JSON object ends the task.
    }
    require(!cache.hasMapping(), "every buffer is released");
    harness.end();
    return 0;
}
