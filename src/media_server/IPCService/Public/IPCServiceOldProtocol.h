#ifndef IPCSERVICE_IPCSERVICEOLDPROTOCOL_H
#define IPCSERVICE_IPCSERVICEOLDPROTOCOL_H

#include <string>

#include "media_server/IPCService/Public/IPCServiceCommProtocol.h"
#include "media_server/IPCService/Public/IPCServiceTransmitter.h"
#include "media_server/IPCService/Public/MsgData.h"

namespace IPCService {

/// The fixed-size MSG_DATA messages over a transmitter. Used by one thread at a time; replies are told apart only by
/// their command, so exchanges on one transmitter must not overlap. Failures are logged by the transmitter.
class IPCServiceOldProtocol : public IPCServiceCommProtocol<QL_CMD_TYPE, MSG_DATA>
{
public:
    /// @param pTransmitter  not owned; must outlive the protocol
    explicit IPCServiceOldProtocol(IPCServiceTransmitter* pTransmitter);

    /// @param destPath  socket path of the receiver
    /// @param cmd       not read: the command travels in the message
    int send(const std::string& destPath, const QL_CMD_TYPE& cmd, const MSG_DATA& msg) override;

    /// Waits without limit. cmd is set from the message's command field whatever arrived: after a short or failed
    /// receive it is what the caller's buffer held there.
    int receive(QL_CMD_TYPE& cmd, MSG_DATA& msg) override;

    int poll(long seconds, long microseconds) override;

private:
    IPCServiceTransmitter* m_pTransmitter;
};

}  // namespace IPCService

#endif
