#include "media_server/IPCService/Public/Interruption.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace IPCService {

namespace {

using Clock = Interruption::Clock;

constexpr Clock::time_point NO_LIMIT = Clock::time_point::max();
constexpr std::size_t MOST_DESCRIPTORS = 2;

/// Of the interruption that is bound to this thread; null: none is.
thread_local const WakeUp* interruption = nullptr;

/// What is left until a deadline, in whole milliseconds, rounded up so that a wait never ends early; -1: no limit.
int millisecondsUntil(Clock::time_point deadline)
{
    if (deadline == NO_LIMIT) {
        return -1;
    }
    const std::int64_t left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    const std::int64_t most = std::numeric_limits<int>::max();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, most));
}

/// What the calling thread's interruption is waited for with; nothing when there is none.
pollfd interruptionOfThread()
{
    return {interruption != nullptr ? interruption->descriptor() : -1, POLLIN, 0};
}

Clock::time_point deadlineAfter(long milliseconds)
{
    return milliseconds < 0 ? NO_LIMIT : Clock::now() + std::chrono::milliseconds(milliseconds);
}

/// @param waited  what to wait for, and behind it a place for the interruption
/// @param count   number of descriptors without the interruption
/// @return false after the deadline
bool pollUntil(pollfd* waited, std::size_t count, Clock::time_point deadline)
{
    // poll passes over a negative descriptor: one that is closed would be waited for in vain.
    const bool isClosed = std::any_of(waited, waited + count, [](const pollfd& one) { return one.fd < 0; });
    for (;;) {
        const int ready = ::poll(waited, count + 1, isClosed ? 0 : millisecondsUntil(deadline));
        if (ready > 0) {
            if (waited[count].revents != 0) {
                throw Interrupted();
            }
            return true;
        }
        if (ready == 0) {
            return isClosed;
        }
        if (errno != EINTR) {
            return true;  // out of memory: the descriptor's next use decides
        }
    }
}

}  // namespace

Interruption::Scope::Scope(const Interruption& bound) noexcept : m_pOuter(interruption)
{
    interruption = &bound.m_wakeUp;
}

Interruption::Scope::~Scope()
{
    interruption = m_pOuter;
}

void Interruption::check()
{
    sleep(0);
}

void Interruption::sleep(long milliseconds)
{
    waitForAny({}, deadlineAfter(milliseconds));
}

bool Interruption::wait(int descriptor, short events, long milliseconds)
{
    pollfd waited[] = {{descriptor, events, 0}, interruptionOfThread()};
    return pollUntil(waited, 1, deadlineAfter(milliseconds));
}

bool Interruption::waitForAny(std::initializer_list<int> descriptors, Clock::time_point deadline)
{
    pollfd waited[MOST_DESCRIPTORS + 1] = {};
    std::size_t count = 0;
    for (const int descriptor : descriptors) {
        waited[count++] = {descriptor, POLLIN, 0};
    }
    waited[count] = interruptionOfThread();
    return pollUntil(waited, count, deadline);
}

}  // namespace IPCService
