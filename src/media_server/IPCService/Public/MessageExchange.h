#ifndef IPCSERVICE_MESSAGEEXCHANGE_H
#define IPCSERVICE_MESSAGEEXCHANGE_H

#include "media_server/IPCService/Public/ExchangeSocket.h"
#include "media_server/IPCService/Public/MsgData.h"

namespace IPCService {

/// Requests to the camera's other processes and their replies, one after the other, over the socket on EXCHANGE_PATH
/// that all exchanges of the process share while they live.
///
/// Exchanges take turns, request by request: one sends when the one before it has its reply. Whose peer has been silent
/// for 5 seconds no longer holds up the others, and still gets its reply, however late. A request that cannot leave,
/// because its peer is away, is sent again every second until it does.
///
/// Belongs to one thread. Waiting throws Interrupted when that thread is interrupted.
class MessageExchange
{
public:
    /// Binds the path, if no other exchange has.
    /// @throws Poco::IOException when the path cannot be bound
    /// @throws Poco::SystemException when no descriptor is free
    MessageExchange();
    ~MessageExchange();
    MessageExchange(const MessageExchange&) = delete;
    MessageExchange& operator=(const MessageExchange&) = delete;

    /// Waits for the turn and sends a request to the path in its own destination field. When it does not leave, which
    /// the transmitter logs, receive() sends it again.
    /// @throws Poco::InvalidArgumentException when that field is empty or names this service's own path: nobody there
    ///         could ever reply
    void send(const MSG_DATA& request);

    /// Waits without limit for the reply to what was sent.
    /// @param message  the request, unchanged; the reply is written over it, a short one over its beginning
    /// @return the command found in message
    QL_CMD_TYPE receive(MSG_DATA& message);

    /// send and receive.
    QL_CMD_TYPE exchange(MSG_DATA& message);

private:
    using Clock = ExchangeSocket::Clock;

    /// @return false when the reply was there before the turn came
    bool waitForTurn(const std::string& peerPath);
    void sendOnce(const MSG_DATA& request);
    void sendAgain(const MSG_DATA& request);
    void waitForReply(Clock::time_point deadline);

    ExchangeSocket& m_socket;
    ExchangeMember m_member;
    Clock::time_point m_nextAttempt;  ///< when a request that did not leave is sent again
    bool m_bFailureLogged = false;    ///< of the present request
};

}  // namespace IPCService

#endif
