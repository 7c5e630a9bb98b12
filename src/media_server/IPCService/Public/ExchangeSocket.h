#ifndef IPCSERVICE_EXCHANGESOCKET_H
#define IPCSERVICE_EXCHANGESOCKET_H

#include <Poco/SharedPtr.h>
#include <sys/stat.h>

#include <mutex>
#include <string>
#include <vector>

#include "media_server/IPCService/Public/IPCServiceOldProtocol.h"
#include "media_server/IPCService/Public/IPCUnixTransmitter.h"
#include "media_server/IPCService/Public/MsgData.h"
#include "media_server/IPCService/Public/TurnQueue.h"
#include "media_server/IPCService/Public/WakeUp.h"

namespace IPCService {

/// Socket path that every request to the camera's other processes is sent from.
constexpr char EXCHANGE_PATH[] = "/tmp/CP";

/// How far the request of an exchange is.
enum class RequestState {
    None,      ///< nothing is asked
    NotLeft,   ///< its peer could not be reached
    Left,      ///< its reply is waited for
    Answered,  ///< its reply is there
};

/// One exchange, as the socket that it shares knows it. All but wakeUp is touched under the socket's lock only.
struct ExchangeMember
{
    const WakeUp wakeUp;  ///< signalled when its turn may have come, and when its request's state changes
    RequestState state = RequestState::None;
    std::string peerPath;      ///< whom it asked last
    QL_CMD_TYPE command = {};  ///< what it asked last
    int replyLength = 0;       ///< bytes of the reply
    MSG_DATA reply;
};

/// The one socket on EXCHANGE_PATH, which all exchanges of the process share: it is bound when the first begins and
/// closed when the last ends. Requests leave one after the other, in turns; whatever arrives goes to the exchange that
/// it is meant for, whichever thread takes it.
///
/// Every operation may be called from any thread; none waits.
class ExchangeSocket
{
public:
    using Clock = TurnQueue::Clock;

    /// The process's socket.
    static ExchangeSocket& ofProcess();

    /// Binds the path when it is the first, or when the path leads elsewhere by now.
    /// @throws Poco::IOException when the path cannot be bound
    void join(ExchangeMember& member);
    void leave(ExchangeMember& member) noexcept;

    /// Stands in line for the turn to send a request.
    /// @param peerPath  whom it will ask
    void queue(ExchangeMember& member, const std::string& peerPath);

    /// @return true when the turn has come, and begins: it ends 5 seconds later at the latest
    bool takeTurn(ExchangeMember& member);

    /// When to look for the turn again, if nobody passes it on before.
    Clock::time_point turnComesAt(const ExchangeMember& member);

    /// Gives back the turn, or the place in line.
    void passTurn(const ExchangeMember& member) noexcept;

    /// Sends a member's request to whom it asks. It counts as asked from then on, whether or not it left. Nothing is
    /// sent when its reply is there already.
    /// @param logsFailure  whether a failure is to be logged
    /// @return false when it did not leave
    bool send(ExchangeMember& member, const MSG_DATA& request, bool logsFailure);

    /// Takes what has arrived, if anything has, to the exchange that it is meant for.
    /// @return false when it cannot be received, which is logged
    /// @throws Interrupted when the calling thread is interrupted
    bool deliver();

    RequestState stateOf(const ExchangeMember& member);

    /// What to wait for until something arrives. A member's: only those keep the socket open.
    int descriptor();

    /// Takes an answered member's reply, which ends its request.
    /// @param message  the reply is written over its beginning
    void takeReply(ExchangeMember& member, MSG_DATA& message);

private:
    void bind();
    bool isBound() const;
    bool deliverOne();
    ExchangeMember* receiver(QL_CMD_TYPE command, const SocketPath& sender) const;
    void passTurnLocked(const ExchangeMember& member) noexcept;

    std::mutex m_mutex;
    TurnQueue m_turns;
    std::vector<ExchangeMember*> m_members;  ///< in the order in which they asked last
    std::vector<std::string> m_askedPeers;   ///< whom any member has asked since the first joined
    struct stat m_file = {};                 ///< of the path when it was bound
    Poco::SharedPtr<IPCUnixTransmitter> m_pTransmitter;
    Poco::SharedPtr<IPCServiceOldProtocol> m_pProtocol;
    MSG_DATA m_arrived{};
};

}  // namespace IPCService

#endif
