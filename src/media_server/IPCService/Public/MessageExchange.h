#ifndef IPCSERVICE_MESSAGEEXCHANGE_H
#define IPCSERVICE_MESSAGEEXCHANGE_H

#include <Poco/SharedPtr.h>

#include "media_server/IPCService/Public/IPCServiceOldProtocol.h"
#include "media_server/IPCService/Public/IPCUnixTransmitter.h"
#include "media_server/IPCService/Public/MsgData.h"

namespace IPCService {

/// Socket path that every request to the camera's other processes is sent from.
constexpr char EXCHANGE_PATH[] = "/tmp/CP";

/// Requests to the camera's other processes and their replies, over an own socket on EXCHANGE_PATH.
///
/// The socket bound last owns the path, so exchanges must not overlap: the constructor waits for its turn. An
/// exchange that hangs on a silent peer would block all others for ever; whoever has waited 5 seconds goes ahead and
/// takes the path from it.
///
/// Belongs to one thread. Waiting throws Interrupted when that thread is interrupted.
class MessageExchange
{
public:
    /// Waits for the turn and binds the path.
    /// @throws Poco::IOException when the path cannot be bound
    MessageExchange();
    ~MessageExchange();
    MessageExchange(const MessageExchange&) = delete;
    MessageExchange& operator=(const MessageExchange&) = delete;

    /// Sends a message to the path in its own destination field. A failure is logged by the transmitter.
    void send(const MSG_DATA& message);

    /// Waits without limit for the reply to what was sent and takes it into message. Nothing is waited for when the
    /// request did not leave, since nobody will answer it; message then stays as it is.
    /// @return the command found in message
    QL_CMD_TYPE receive(MSG_DATA& message);

    /// send and receive.
    QL_CMD_TYPE exchange(MSG_DATA& message);

    /// Lets the next exchange have its turn while this object, with its socket, still lives.
    void finish();

private:
    /// This process's one turn, held from construction until the exchange is over, or until another took it.
    class Turn
    {
    public:
        Turn();
        ~Turn();
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;
        void pass() noexcept;
    };

    Turn m_turn;  // first: the turn is taken before the path, and passed on after the socket is closed
    Poco::SharedPtr<IPCUnixTransmitter> m_pTransmitter;
    Poco::SharedPtr<IPCServiceOldProtocol> m_pProtocol;
    bool m_bSent;
};

}  // namespace IPCService

#endif
