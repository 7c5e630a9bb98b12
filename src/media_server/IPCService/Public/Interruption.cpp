#include "media_server/IPCService/Public/Interruption.h"

#include <Poco/Exception.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <limits>

namespace IPCService {

namespace {

using Clock = std::chrono::steady_clock;

/// A negative descriptor takes no part in poll.
constexpr int NO_DESCRIPTOR = -1;

thread_local Interruption* currentInterruption = nullptr;

/// What is left until a deadline, in whole milliseconds, rounded up so that a wait never ends early.
int millisecondsUntil(Clock::time_point deadline)
{
    const std::int64_t left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    const std::int64_t most = std::numeric_limits<int>::max();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, most));
}

}  // namespace

Interruption::Scope::Scope(Interruption& interruption) noexcept : m_pOuter(currentInterruption)
{
    currentInterruption = &interruption;
}

Interruption::Scope::~Scope()
{
    currentInterruption = m_pOuter;
}

Interruption::Interruption() : m_descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (m_descriptor < 0) {
        throw Poco::SystemException("cannot create an event descriptor", errno);
    }
}

Interruption::~Interruption()
{
    ::close(m_descriptor);
}

void Interruption::interrupt() const noexcept
{
    // Fails only when the counter is full, and then the descriptor is readable already.
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(m_descriptor, &one, sizeof(one));
}

void Interruption::check()
{
    wait(NO_DESCRIPTOR, 0, 0);
}

void Interruption::sleep(long milliseconds)
{
    wait(NO_DESCRIPTOR, 0, milliseconds);
}

bool Interruption::wait(int descriptor, short events, long milliseconds)
{
    const bool limited = milliseconds >= 0;
    const auto deadline = Clock::now() + std::chrono::milliseconds(milliseconds);
    pollfd waited[] = {{descriptor, events, 0},
                       {currentInterruption != nullptr ? currentInterruption->m_descriptor : NO_DESCRIPTOR, POLLIN, 0}};
    for (;;) {
        const int ready = ::poll(waited, 2, limited ? millisecondsUntil(deadline) : -1);
        if (ready > 0) {
            if (waited[1].revents != 0) {
                throw Interrupted();
            }
            return true;
        }
        if (ready == 0) {
            return false;
        }
        if (errno != EINTR) {
            return true;  // out of memory: the descriptor's next use decides
        }
    }
}

}  // namespace IPCService
