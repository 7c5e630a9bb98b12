#ifndef CUSTOM_SUBSYSTEM_CUSTOM_DOWNLOADPICTURETASK_H
#define CUSTOM_SUBSYSTEM_CUSTOM_DOWNLOADPICTURETASK_H

#include <Poco/Task.h>

#include <cstdint>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadTaskParam.h"

namespace IPCService {
namespace MetaDataGW {

/// The pages of one download. There is one object, a member of the subsystem; its runTask is called directly on the
/// thread of the CustomJsonPicDownloadTask that fills its parameters. It is never started on a task manager.
class DownloadPictureTask : public Poco::Task
{
public:
    DownloadPictureTask();
    ~DownloadPictureTask() override;

    /// Downloads the pages one after the other, up to the first that fails.
    /// @throws Interrupted when the calling thread is interrupted
    void runTask() override;

    /// Zero: pause a second between pages. Part of the contract; nothing here sets it to that.
    std::int32_t m_bNoPageDelay;

    /// The download. Kept until the next one overwrites it.
    DownloadTaskParam m_downloadTaskParam;
};

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
