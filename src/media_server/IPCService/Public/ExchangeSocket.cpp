#include "media_server/IPCService/Public/ExchangeSocket.h"

#include <Poco/Net/SocketAddress.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "media_server/IPCService/Public/Interruption.h"

namespace IPCService {

namespace {

constexpr std::chrono::seconds LONGEST_TURN(5);
constexpr int COMMAND_END = offsetof(MSG_DATA, command) + sizeof(MSG_DATA::command);

bool isAsking(const ExchangeMember& member)
{
    return member.state == RequestState::NotLeft || member.state == RequestState::Left;
}

}  // namespace

ExchangeSocket& ExchangeSocket::ofProcess()
{
    static ExchangeSocket socket;
    return socket;
}

void ExchangeSocket::join(ExchangeMember& member)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_members.reserve(m_members.size() + 1);
    if (m_pTransmitter.isNull() || !isBound()) {
        bind();
    }
    m_members.push_back(&member);
}

void ExchangeSocket::bind()
{
    Poco::SharedPtr<IPCUnixTransmitter> pTransmitter(new IPCUnixTransmitter(EXCHANGE_PATH));
    Poco::SharedPtr<IPCServiceOldProtocol> pProtocol(new IPCServiceOldProtocol(pTransmitter.get()));
    while (!m_pTransmitter.isNull() && Interruption::wait(m_pTransmitter->descriptor(), POLLIN, 0) && deliverOne()) {
        // what came in while the path still led to the old socket
    }
    m_pProtocol = pProtocol;
    m_pTransmitter = pTransmitter;
    if (::stat(EXCHANGE_PATH, &m_file) != 0) {
        m_file = {};  // unknown
    }
    for (const ExchangeMember* pMember : m_members) {
        pMember->wakeUp.signal();  // it has another descriptor to wait for
    }
}

/// Whether the path still leads to the socket. Replies would reach nobody else. A path that cannot be looked at is not
/// gone: the way of a reply that is due would be. Nor is one that could not be looked at when it was bound.
bool ExchangeSocket::isBound() const
{
    struct stat status = {};
    if (::stat(EXCHANGE_PATH, &status) != 0) {
        return errno != ENOENT;
    }
    const bool isUnknown = m_file.st_ino == 0;
    return isUnknown ||
           (status.st_dev == m_file.st_dev && status.st_ino == m_file.st_ino &&
            status.st_ctim.tv_sec == m_file.st_ctim.tv_sec && status.st_ctim.tv_nsec == m_file.st_ctim.tv_nsec);
}

void ExchangeSocket::leave(ExchangeMember& member) noexcept
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    passTurnLocked(member);
    m_members.erase(std::find(m_members.begin(), m_members.end(), &member));
    if (m_members.empty()) {
        m_pProtocol = nullptr;
        m_pTransmitter = nullptr;
        m_askedPeers.clear();
    }
}

void ExchangeSocket::queue(ExchangeMember& member, const std::string& peerPath)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    member.peerPath = peerPath;
    if (std::find(m_askedPeers.begin(), m_askedPeers.end(), peerPath) == m_askedPeers.end()) {
        m_askedPeers.push_back(peerPath);
    }
    m_turns.enter(&member);
}

bool ExchangeSocket::takeTurn(ExchangeMember& member)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto now = Clock::now();
    if (!m_turns.take(&member, now, now + LONGEST_TURN)) {
        return false;
    }
    if (const auto* pNext = static_cast<const ExchangeMember*>(m_turns.next())) {
        pNext->wakeUp.signal();  // it has a new end to wait for
    }
    return true;
}

ExchangeSocket::Clock::time_point ExchangeSocket::turnComesAt(const ExchangeMember& member)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_turns.comesAt(&member);
}

void ExchangeSocket::passTurn(const ExchangeMember& member) noexcept
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    passTurnLocked(member);
}

void ExchangeSocket::passTurnLocked(const ExchangeMember& member) noexcept
{
    m_turns.leave(&member);
    if (const auto* pNext = static_cast<const ExchangeMember*>(m_turns.next())) {
        pNext->wakeUp.signal();
    }
}

bool ExchangeSocket::send(ExchangeMember& member, const MSG_DATA& request, bool logsFailure)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (member.state == RequestState::Answered) {
        return true;
    }
    if (member.state == RequestState::None) {
        const auto place = std::find(m_members.begin(), m_members.end(), &member);
        std::rotate(place, place + 1, m_members.end());
    }
    member.command = request.command;
    int sent = 0;
    if (logsFailure) {
        sent = m_pProtocol->send(member.peerPath, request.command, request);
    } else {
        const Poco::Net::SocketAddress address(Poco::Net::AddressFamily::UNIX_LOCAL, member.peerPath);
        sent = m_pTransmitter->sendAgain(&request, static_cast<int>(sizeof(request)), address);
    }
    member.state = sent < 0 ? RequestState::NotLeft : RequestState::Left;
    return sent >= 0;
}

bool ExchangeSocket::deliver()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    // Another thread may have been here first.
    return !Interruption::wait(m_pTransmitter->descriptor(), POLLIN, 0) || deliverOne();
}

bool ExchangeSocket::deliverOne()
{
    const SocketPath sender = senderOfNextDatagram(m_pTransmitter->descriptor());
    m_arrived = MSG_DATA{};
    QL_CMD_TYPE command = {};
    const int length = m_pProtocol->receive(command, m_arrived);
    if (length < 0) {
        return false;
    }
    const bool hasCommand = length >= COMMAND_END;
    ExchangeMember* pMember = receiver(hasCommand ? command : QL_CMD_TYPE{}, sender);
    // What is too short for a command reads as the request does: of one that has not left it is no reply.
    if (pMember == nullptr || (!hasCommand && pMember->state == RequestState::NotLeft)) {
        return true;  // nobody's: left over from an exchange that has gone on or ended
    }
    if (sender == EXCHANGE_PATH) {
        // The peer's path leads back here. No request is its own reply: it has reached nobody.
        pMember->state = RequestState::NotLeft;
        passTurnLocked(*pMember);
    } else {
        pMember->state = RequestState::Answered;
        pMember->replyLength = length;
        std::memcpy(&pMember->reply, &m_arrived, static_cast<std::size_t>(length));
    }
    pMember->wakeUp.signal();
    return true;
}

/// Who waits for a message: whoever asked for its command, the longest-waiting first. A message with another command
/// is for who asked its sender, and from a stranger for whoever waits alone.
ExchangeMember* ExchangeSocket::receiver(QL_CMD_TYPE command, const SocketPath& sender) const
{
    ExchangeMember* pAsking = nullptr;
    ExchangeMember* pAskedSender = nullptr;
    int asking = 0;
    for (ExchangeMember* pMember : m_members) {
        if (!isAsking(*pMember)) {
            continue;
        }
        if (pMember->command == command) {
            return pMember;
        }
        pAsking = pMember;
        ++asking;
        if (pAskedSender == nullptr && sender == pMember->peerPath) {
            pAskedSender = pMember;
        }
    }
    const bool isSenderKnown = std::any_of(m_askedPeers.begin(), m_askedPeers.end(),
                                           [&sender](const std::string& peer) { return sender == peer; });
    if (isSenderKnown) {
        return pAskedSender;
    }
    return asking == 1 ? pAsking : nullptr;
}

RequestState ExchangeSocket::stateOf(const ExchangeMember& member)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return member.state;
}

int ExchangeSocket::descriptor()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_pTransmitter->descriptor();
}

void ExchangeSocket::takeReply(ExchangeMember& member, MSG_DATA& message)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::memcpy(&message, &member.reply, static_cast<std::size_t>(member.replyLength));
    member.state = RequestState::None;
    passTurnLocked(member);
}

}  // namespace IPCService
