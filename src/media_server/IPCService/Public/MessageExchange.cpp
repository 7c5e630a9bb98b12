#include "media_server/IPCService/Public/MessageExchange.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>

#include "media_server/IPCService/Public/Interruption.h"

namespace IPCService {

namespace {

constexpr std::chrono::milliseconds LONGEST_TURN(5000);

/// A counting event descriptor that holds 1 while the turn is free: unlike a mutex it can be waited for together with
/// an interruption. Opened before anything can use up the descriptors, and kept for the life of the process.
const int turnDescriptor = ::eventfd(1, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC);

bool tryTakeTurn()
{
    std::uint64_t count = 0;
    return ::read(turnDescriptor, &count, sizeof(count)) == static_cast<ssize_t>(sizeof(count));
}

/// @return false when the turn was not to be had in time
bool takeTurn()
{
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + LONGEST_TURN;
    while (!tryTakeTurn()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0 || !Interruption::wait(turnDescriptor, POLLIN, static_cast<long>(left.count()))) {
            return false;
        }
    }
    return true;
}

}  // namespace

MessageExchange::Turn::Turn() : m_bOwned(takeTurn()) {}

MessageExchange::Turn::~Turn()
{
    pass();
}

void MessageExchange::Turn::pass() noexcept
{
    if (m_bOwned) {
        const std::uint64_t one = 1;
        (void)!::write(turnDescriptor, &one, sizeof(one));
        m_bOwned = false;
    }
}

MessageExchange::MessageExchange()
    : m_turn(),
      m_pTransmitter(new IPCUnixTransmitter(EXCHANGE_PATH)),
      m_pProtocol(new IPCServiceOldProtocol(m_pTransmitter.get())),
      m_bSent(false)
{
}

MessageExchange::~MessageExchange() = default;

void MessageExchange::send(const MSG_DATA& message)
{
    const std::string destPath(message.destPath, ::strnlen(message.destPath, sizeof(message.destPath)));
    m_bSent = m_pProtocol->send(destPath, message.command, message) >= 0;
}

QL_CMD_TYPE MessageExchange::receive(MSG_DATA& message)
{
    QL_CMD_TYPE command = message.command;
    if (m_bSent) {
        m_pProtocol->receive(command, message);
    }
    return command;
}

QL_CMD_TYPE MessageExchange::exchange(MSG_DATA& message)
{
    send(message);
    return receive(message);
}

void MessageExchange::finish()
{
    m_turn.pass();
}

}  // namespace IPCService
