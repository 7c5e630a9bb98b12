#include "media_server/IPCService/ProtocolProcess/Public/Public_MetaDataRecvTask.h"

#include <Poco/Bugcheck.h>
#include <Poco/Dynamic/Var.h>
#include <Poco/Exception.h>
#include <Poco/JSON/Object.h>
#include <poll.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <string>

#include "media_server/IPCService/ProtocolProcess/Public/MetaDataNotification.h"
#include "media_server/IPCService/Public/JsonText.h"
#include "media_server/IPCService/Public/ServiceLog.h"

namespace IPCService {
namespace ProtocalProcess {

namespace {

constexpr LogSource LOG_SOURCE{"media_server/IPCService/ProtocolProcess/Public/Public_MetaDataRecvTask"};

constexpr long NO_OBSERVER_PAUSE = 1000;  // milliseconds
/// One of so many failed gets is logged.
constexpr unsigned GET_FAILURES_PER_LINE = 500;

void countGetFailure()
{
    static std::atomic<unsigned> failures{0};
    if (failures.fetch_add(1) % GET_FAILURES_PER_LINE == 0) {
        LOG(Error, "Utils_EventCacheBufGet FAIL!\n");
    }
}

/// Takes the record's text: up to its NUL, at the latest to the end of the mapping.
void copyText(const EventCacheBufData& data, std::string& text)
{
    const char* end = static_cast<const char*>(data.stMMapAddr.pBufData) + data.stMMapAddr.length;
    text.assign(data.pData, ::strnlen(data.pData, static_cast<std::size_t>(end - data.pData)));
}

/// Parses a record. @return an empty value when it is malformed
Poco::Dynamic::Var parseRecord(const std::string& text)
{
    try {
        return JsonText::parse(text);
    } catch (const Poco::Exception& exc) {
        LOG(Error, "PUBLIC_JSON Err %s ", exc.displayText().c_str());
        return Poco::Dynamic::Var();
    }
}

/// Parses the record in a buffer and releases the buffer, however that ends.
/// @param text  set to the record's text
Poco::Dynamic::Var takeRecord(EventCacheHndl* handle, EventCacheBufData& data, std::string& text)
{
    struct Release
    {
        EventCacheHndl* handle;
        EventCacheBufData& data;
        ~Release() { Utils_EventCacheBufRelease(handle, &data); }
    };
    const Release release{handle, data};
    copyText(data, text);
    return parseRecord(text);
}

}  // namespace

Public_MetaDataRecvTask::Public_MetaDataRecvTask(EventCacheHndl* handle)
    : Poco::Task("MetaDataRecvTask"), m_pstEventCacheHndl(handle)
{
}

Public_MetaDataRecvTask::~Public_MetaDataRecvTask() = default;

void Public_MetaDataRecvTask::interrupt() noexcept
{
    m_interruption.interrupt();
}

void Public_MetaDataRecvTask::runTask()
{
    if (m_pstEventCacheHndl == nullptr) {
        Poco::Bugcheck::assertion("m_pstEventCacheHndl != NULL", __FILE__, __LINE__);
    }
    const Interruption::Scope scope(m_interruption);
    try {
        for (;;) {
            if (m_notificationCenter.hasObservers()) {
                receiveRecord();
            } else {
                Interruption::sleep(NO_OBSERVER_PAUSE);
            }
        }
    } catch (const Interrupted&) {
        // The service stops.
    }
}

void Public_MetaDataRecvTask::receiveRecord()
{
    // The wait ends with an interruption, which the read behind it would not.
    Interruption::wait(m_pstEventCacheHndl->nEventFd, POLLIN, -1);
    // Cleared each time: an answer without a buffer would leave the one before, which is unmapped by now.
    EventCacheBufData stBufData = {};
    if (Utils_EventCacheBufGet(m_pstEventCacheHndl, &stBufData) != IPC_SUCCESS) {
        countGetFailure();
        return;
    }
    if (stBufData.nDataLen == 0) {
        Utils_EventCacheBufRelease(m_pstEventCacheHndl, &stBufData);
        LOG(Error, "stBufData.nDataLen zero!\n");
        return;
    }
    const Poco::Dynamic::Var result = takeRecord(m_pstEventCacheHndl, stBufData, m_text);
    if (!result.convert<bool>()) {
        return;
    }
    Poco::JSON::Object::Ptr pObject = result.extract<Poco::JSON::Object::Ptr>();
    m_notificationCenter.postNotification(new MetaDataGW::MetaDataNotification(pObject.get()));
}

}  // namespace ProtocalProcess
}  // namespace IPCService
