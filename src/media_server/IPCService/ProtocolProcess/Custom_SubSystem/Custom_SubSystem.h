#ifndef CUSTOM_SUBSYSTEM_CUSTOM_SUBSYSTEM_H
#define CUSTOM_SUBSYSTEM_CUSTOM_SUBSYSTEM_H

#include <Poco/AutoPtr.h>
#include <Poco/SharedPtr.h>
#include <Poco/TaskManager.h>
#include <Poco/UUID.h>
#include <Poco/Util/Subsystem.h>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_BusyMark.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadPictureTask.h"
#include "media_server/IPCService/Public/IPCServiceOldProtocol.h"
#include "media_server/IPCService/Public/IPCUnixTransmitter.h"
#include "media_server/IPCService/Public/TaskStarter.h"
#include "public/utils/alg_utils/utils_process_ringbuf.h"

namespace IPCService {
namespace MetaDataGW {

class CustomJsonMsgLoop;

/// The command side of the service: brings up its message endpoint, the ring buffer, the TLS client settings and the
/// command loop, and holds what the commands share.
class CustomSubSystem : public Poco::Util::Subsystem
{
public:
    /// Binds "/tmp/CU".
    /// @throws Poco::IOException when the path cannot be bound
    CustomSubSystem();
    ~CustomSubSystem() override;

    const char* name() const override;

    /// Start-up, on the main thread. Waits without limit for ITGT. When the ring buffer cannot be opened it stops
    /// there: the process then runs without command loop.
    /// @param app  the service's application, a TaskStarter; std::bad_cast otherwise
    /// @throws Poco::Exception when TLS or the command loop cannot be set up
    void initialize(Poco::Util::Application& app) override;

    /// Does nothing: sockets and ring buffer stay open until the process ends.
    void uninitialize() override;

private:
    Poco::SharedPtr<IPCUnixTransmitter> m_pTransmitter;
    Poco::SharedPtr<IPCServiceOldProtocol> m_pProtocol;

public:
    /// The running download. Used by the download task's thread only.
    DownloadPictureTask m_downloadTask;

    /// Producer of the metadata ring buffer; null until it is opened. Written before the command loop starts.
    ProcessRingBufHndl* m_ringBufHandle;

    /// Part of the contract; nothing reads it.
    Poco::UUID m_uuid;

    /// Busy mark: a whiteListDown is refused while it is set. Its one owner is the BusyMark of the download
    /// that runs; read it with isBusy.
    bool m_bDownloading;

    /// Part of the contract; nothing is started on it. Tasks run on the application's.
    Poco::TaskManager m_taskManager;

private:
    void announceToItgt();
    void startCommandLoop(TaskStarter& app);

    /// The command loop, null until it is started. Kept until the subsystem goes, after all tasks have ended: a
    /// download reads the loop's record, and may begin to when the loop has ended already.
    Poco::AutoPtr<CustomJsonMsgLoop> m_pLoop;
};

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
