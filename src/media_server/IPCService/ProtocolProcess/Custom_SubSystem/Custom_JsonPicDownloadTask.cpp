#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonPicDownloadTask.h"

#include <Poco/Exception.h>

#include <exception>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_SubSystem.h"
#include "media_server/IPCService/Public/ServiceLog.h"

namespace IPCService {
namespace MetaDataGW {

namespace {

constexpr char LOG_SOURCE[] = "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonPicDownloadTask";

}  // namespace

CustomJsonPicDownloadTask::CustomJsonPicDownloadTask(CustomSubSystem* pSubSystem,
                                                     const DownloadTaskParam* pDownloadTaskParam)
    : Poco::Task("Json pic download Task"), m_pSubSystem(pSubSystem), m_pDownloadTaskParam(pDownloadTaskParam)
{
}

CustomJsonPicDownloadTask::~CustomJsonPicDownloadTask() = default;

void CustomJsonPicDownloadTask::cancel()
{
    Poco::Task::cancel();
    m_interruption.interrupt();
}

void CustomJsonPicDownloadTask::runTask()
{
    const Interruption::Scope scope(m_interruption);
    LOG(Information, "CustomJsonPicDownloadTask Begin ");
    try {
        download();
        m_pSubSystem->setDownloading(false);
        LOG(Information, "CustomJsonPicDownloadTask End ");
    } catch (const Interrupted&) {
        m_pSubSystem->setDownloading(false);
    } catch (const Poco::Exception& exc) {
        m_pSubSystem->setDownloading(false);
        LOG(Error, "CustomJsonPicDownloadTask Err %s ", exc.displayText().c_str());
    } catch (const std::exception& exc) {
        m_pSubSystem->setDownloading(false);
        LOG(Error, "CustomJsonPicDownloadTask Err %s ", exc.what());
    }
}

void CustomJsonPicDownloadTask::download()
{
    m_pSubSystem->setDownloading(true);
    // A copy: a later command may rewrite the record while this download runs.
    m_pSubSystem->m_downloadTask.m_downloadTaskParam = *m_pDownloadTaskParam;
    m_pSubSystem->m_downloadTask.runTask();
}

}  // namespace MetaDataGW
}  // namespace IPCService
