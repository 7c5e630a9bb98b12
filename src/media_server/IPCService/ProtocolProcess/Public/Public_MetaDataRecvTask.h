#ifndef PROTOCOLPROCESS_PUBLIC_METADATARECVTASK_H
#define PROTOCOLPROCESS_PUBLIC_METADATARECVTASK_H

#include <Poco/NotificationCenter.h>
#include <Poco/Task.h>

#include <string>

#include "media_server/IPCService/Public/Interruption.h"
#include "public/utils/alg_utils/utils_srvfs_eventcache.h"

namespace IPCService {
namespace ProtocalProcess {

/// Pulls records from the event cache, parses each as JSON and posts it as a MetaDataNotification to whoever observes
/// m_notificationCenter. Without an observer the cache is not read.
///
/// A record that is not a JSON object ends the task with an exception: its publisher is broken, and what follows
/// cannot be trusted.
class Public_MetaDataRecvTask : public Poco::Task
{
public:
    /// @param handle  a subscribed handle; not owned, must outlive the task's run
    explicit Public_MetaDataRecvTask(EventCacheHndl* handle);
    ~Public_MetaDataRecvTask() override;

    /// Runs until interrupted or ended by a broken record; does not look at the task's cancel state.
    /// Observers run on this thread; none may block for long, since nothing is read meanwhile.
    void runTask() override;

    /// Ends runTask within its present wait. Any thread.
    void interrupt() noexcept;

    /// Where observers subscribe. Any thread.
    Poco::NotificationCenter m_notificationCenter;

private:
    /// Waits for one buffer and posts its record.
    void receiveRecord();

    EventCacheHndl* m_pstEventCacheHndl;
    std::string m_text;  ///< of the last record; its memory serves the next, too
    Interruption m_interruption;
};

}  // namespace ProtocalProcess
}  // namespace IPCService

#endif
