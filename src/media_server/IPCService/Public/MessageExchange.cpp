#include "media_server/IPCService/Public/MessageExchange.h"

#include <Poco/Exception.h>

#include <cstring>
#include <new>
#include <string>

#include "media_server/IPCService/Public/Interruption.h"

namespace IPCService {

namespace {

constexpr std::chrono::seconds ATTEMPT_INTERVAL(1);

/// @throws Poco::InvalidArgumentException when nobody could ever reply from there
std::string destinationOf(const MSG_DATA& request)
{
    std::string path(request.destPath, ::strnlen(request.destPath, sizeof(request.destPath)));
    if (path.empty() || path == EXCHANGE_PATH) {
        throw Poco::InvalidArgumentException("message to nobody", path);
    }
    return path;
}

}  // namespace

MessageExchange::MessageExchange() : m_socket(ExchangeSocket::ofProcess())
{
    m_socket.join(m_member);
}

MessageExchange::~MessageExchange()
{
    m_socket.leave(m_member);
}

void MessageExchange::send(const MSG_DATA& request)
{
    m_bFailureLogged = false;
    waitForTurn(destinationOf(request));
    sendOnce(request);
}

QL_CMD_TYPE MessageExchange::receive(MSG_DATA& message)
{
    for (;;) {
        const RequestState state = m_socket.stateOf(m_member);
        if (state == RequestState::Answered) {
            break;
        }
        if (state == RequestState::Left) {
            waitForReply(Clock::time_point::max());
        } else if (Clock::now() < m_nextAttempt) {
            waitForReply(m_nextAttempt);
        } else {
            sendAgain(message);
        }
    }
    m_socket.takeReply(m_member, message);
    return message.command;
}

QL_CMD_TYPE MessageExchange::exchange(MSG_DATA& message)
{
    send(message);
    return receive(message);
}

void MessageExchange::sendAgain(const MSG_DATA& request)
{
    try {
        if (waitForTurn(destinationOf(request))) {
            sendOnce(request);
        }
    } catch (const std::bad_alloc&) {
        // Memory that is short for a moment must not end what waits for a peer.
        m_nextAttempt = Clock::now() + ATTEMPT_INTERVAL;
        m_socket.passTurn(m_member);
    }
}

bool MessageExchange::waitForTurn(const std::string& peerPath)
{
    m_socket.queue(m_member, peerPath);
    while (!m_socket.takeTurn(m_member)) {
        const RequestState state = m_socket.stateOf(m_member);
        if (state == RequestState::Answered) {
            m_socket.passTurn(m_member);
            return false;
        }
        const Clock::time_point turn = m_socket.turnComesAt(m_member);
        if (state == RequestState::None) {
            // Nothing that arrives is for this one yet.
            Interruption::waitForAny({m_member.wakeUp.descriptor()}, turn);
            m_member.wakeUp.clear();
        } else {
            waitForReply(turn);
        }
    }
    return true;
}

void MessageExchange::sendOnce(const MSG_DATA& request)
{
    const bool hasLeft = m_socket.send(m_member, request, !m_bFailureLogged);
    m_nextAttempt = Clock::now() + ATTEMPT_INTERVAL;
    if (!hasLeft) {
        m_bFailureLogged = true;
        m_socket.passTurn(m_member);
    }
}

void MessageExchange::waitForReply(Clock::time_point deadline)
{
    Interruption::waitForAny({m_member.wakeUp.descriptor(), m_socket.descriptor()}, deadline);
    m_member.wakeUp.clear();
    if (!m_socket.deliver()) {
        // Whatever is wrong with the socket may last: no use in running into it at full speed.
        Interruption::sleep(std::chrono::milliseconds(ATTEMPT_INTERVAL).count());
    }
}

}  // namespace IPCService
