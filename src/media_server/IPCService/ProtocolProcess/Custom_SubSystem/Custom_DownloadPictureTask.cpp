#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadPictureTask.h"

#include <algorithm>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadPictureProcObj.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PlatformSocket.h"
#include "media_server/IPCService/Public/Interruption.h"
#include "media_server/IPCService/Public/ServiceLog.h"

namespace IPCService {
namespace MetaDataGW {

namespace {

constexpr LogSource LOG_SOURCE{"media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadPictureTask"};

constexpr std::uint32_t PAGE_SIZE = 30;
constexpr long PAGE_DELAY = 1000;  // milliseconds

/// Sets everything of a page but ITGT's import id, which stays until ITGT gives a new one.
void refreshPage(DownloadPictureProcParam& page, const DownloadTaskParam& task, std::uint32_t startIndex,
                 std::uint32_t offset)
{
    page.ServerIp = task.ServerIp;
    page.ServerPort = task.ServerPort;
    page.ServerUri = task.ServerUri;
    page.ResultUri = task.ResultUri;
    page.securityCode = task.securityCode;
    page.cameraCode = task.cameraCode;
    page.taskID = task.taskID;
    page.startIndex = startIndex;
    page.offset = offset;
    page.datatime = task.datatime;
}

}  // namespace

DownloadPictureTask::DownloadPictureTask() : Poco::Task("Custom Download Picture"), m_bNoPageDelay(1) {}

DownloadPictureTask::~DownloadPictureTask() = default;

void DownloadPictureTask::runTask()
{
    LOG(Information, "DownloadPictureTask runTask");
    const ResumptionScope resumptionScope;
    DownloadPictureProcParam page;
    std::uint32_t startIndex = 0;
    std::uint32_t remaining = m_downloadTaskParam.totalNum;
    while (remaining > 0) {
        const std::uint32_t offset = std::min(remaining, PAGE_SIZE);
        remaining -= offset;
        refreshPage(page, m_downloadTaskParam, startIndex, offset);
        if (DownloadPictureProcess(page) == 0) {
            LOG(Error, "DownloadPictureProcess fail.");
            return;
        }
        startIndex += offset;
        if (m_bNoPageDelay == 0) {
            Interruption::sleep(PAGE_DELAY);
        }
    }
}

}  // namespace MetaDataGW
}  // namespace IPCService
