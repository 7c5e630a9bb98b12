#include "media_server/IPCService/Public/MessageExchange.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <mutex>

#include "media_server/IPCService/Public/Interruption.h"

namespace IPCService {

namespace {

constexpr std::chrono::milliseconds LONGEST_TURN(5000);

/// Who has the turn, of all threads; null: nobody. Under turnMutex.
const void* turnOwner = nullptr;
std::mutex turnMutex;

/// Becomes readable when the turn is passed on: unlike a condition it can be waited for together with an interruption.
/// Opened before anything can use up the descriptors, and kept for the life of the process.
const int turnPassed = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);

/// @param isOverdue  whether the present owner has had its time
bool tryTakeTurn(const void* owner, bool isOverdue)
{
    const std::lock_guard<std::mutex> lock(turnMutex);
    if (turnOwner != nullptr && !isOverdue) {
        return false;
    }
    turnOwner = owner;
    return true;
}

}  // namespace

MessageExchange::Turn::Turn()
{
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + LONGEST_TURN;
    bool isOverdue = false;
    while (!tryTakeTurn(this, isOverdue)) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        isOverdue = left.count() <= 0 || !Interruption::wait(turnPassed, POLLIN, static_cast<long>(left.count()));
        std::uint64_t passes = 0;
        [[maybe_unused]] const ssize_t taken = ::read(turnPassed, &passes, sizeof(passes));
    }
}

MessageExchange::Turn::~Turn()
{
    pass();
}

void MessageExchange::Turn::pass() noexcept
{
    const std::lock_guard<std::mutex> lock(turnMutex);
    if (turnOwner == this) {
        turnOwner = nullptr;
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(turnPassed, &one, sizeof(one));
    }
}

MessageExchange::MessageExchange()
    : m_pTransmitter(new IPCUnixTransmitter(EXCHANGE_PATH)),
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
