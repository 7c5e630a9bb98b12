#ifndef CUSTOM_SUBSYSTEM_CUSTOM_JSONPICDOWNLOADTASK_H
#define CUSTOM_SUBSYSTEM_CUSTOM_JSONPICDOWNLOADTASK_H

#include <Poco/Task.h>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_BusyMark.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadTaskParam.h"
#include "media_server/IPCService/Public/Interruption.h"

namespace IPCService {
namespace MetaDataGW {

class CustomSubSystem;

/// Carries out one accepted whiteListDown command: marks the subsystem busy from its making to the download's end, and
/// runs the subsystem's DownloadPictureTask on its own thread, a thread of the service's task manager.
class CustomJsonPicDownloadTask : public Poco::Task
{
public:
    /// @param pSubSystem          not owned; must outlive the task
    /// @param pDownloadTaskParam  the command; not owned, read when the task begins
    /// @throws Poco::SystemException when no descriptor is free
    CustomJsonPicDownloadTask(CustomSubSystem* pSubSystem, const DownloadTaskParam* pDownloadTaskParam);
    ~CustomJsonPicDownloadTask() override;

    /// Ends the download within its present wait, whatever it waits for. Any thread, at any time.
    void cancel() override;

    /// Runs the task for its manager. Telling the manager takes memory, before the download and after it: a failure
    /// there, too, leaves the subsystem no longer busy.
    void run() override;

    /// The download, from start to end. However it ends, the subsystem is no longer busy.
    void runTask() override;

private:
    void download();

    Interruption m_interruption;
    BusyMark m_busyMark;
    CustomSubSystem* m_pSubSystem;
    const DownloadTaskParam* m_pDownloadTaskParam;
};

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
