#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonPicDownloadTask.h"

#include <exception>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_SubSystem.h"
#include "media_server/IPCService/Public/ExceptionText.h"
#include "media_server/IPCService/Public/ServiceLog.h"

namespace IPCService {
namespace MetaDataGW {

namespace {

constexpr LogSource LOG_SOURCE{"media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonPicDownloadTask"};

}  // namespace

CustomJsonPicDownloadTask::CustomJsonPicDownloadTask(CustomSubSystem* pSubSystem,
                                                     const DownloadTaskParam* pDownloadTaskParam)
    : Poco::Task("Json pic download Task"),
      m_busyMark(pSubSystem->m_bDownloading),
      m_pSubSystem(pSubSystem),
      m_pDownloadTaskParam(pDownloadTaskParam)
{
}

CustomJsonPicDownloadTask::~CustomJsonPicDownloadTask() = default;

void CustomJsonPicDownloadTask::cancel()
{
    Poco::Task::cancel();
    m_interruption.interrupt();
}

void CustomJsonPicDownloadTask::run()
{
    try {
        Poco::Task::run();
    } catch (const std::exception& exc) {
        m_busyMark.release();
        LOG(Error, "CustomJsonPicDownloadTask Err %s ", exceptionText(exc).c_str());
    }
}

void CustomJsonPicDownloadTask::runTask()
{
    const Interruption::Scope scope(m_interruption);
    LOG(Information, "CustomJsonPicDownloadTask Begin ");
    try {
        download();
        LOG(Information, "CustomJsonPicDownloadTask End ");
    } catch (const Interrupted&) {
        // Cancelled while it waited.
    } catch (const std::exception& exc) {
        LOG(Error, "CustomJsonPicDownloadTask Err %s ", exceptionText(exc).c_str());
    }
}

void CustomJsonPicDownloadTask::download()
{
    struct ReleaseAtEnd
    {
        BusyMark& mark;
        ~ReleaseAtEnd() { mark.release(); }
    };
    const ReleaseAtEnd releaseAtEnd{m_busyMark};
    // A copy: a later command may rewrite the record while this download runs.
    m_pSubSystem->m_downloadTask.m_downloadTaskParam = *m_pDownloadTaskParam;
    m_pSubSystem->m_downloadTask.runTask();
}

}  // namespace MetaDataGW
}  // namespace IPCService
