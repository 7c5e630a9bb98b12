#ifndef IPCSERVICE_TURNQUEUE_H
#define IPCSERVICE_TURNQUEUE_H

#include <chrono>
#include <deque>

namespace IPCService {

/// Whose turn it is, of several that stand in line: who came first goes first. Who has had the turn for too long no
/// longer holds up the others. Has no lock: its user brings one.
class TurnQueue
{
public:
    using Clock = std::chrono::steady_clock;

    /// Stands in line, behind all others.
    void enter(const void* who) { m_line.push_back(who); }

    /// Takes the turn, if it has come.
    /// @param end  when the turn is over at the latest
    /// @return true when it has; who leaves the line then
    bool take(const void* who, Clock::time_point now, Clock::time_point end);

    /// Leaves the line and gives back the turn, as far as there is anything to leave and to give.
    void leave(const void* who) noexcept;

    /// Who goes next; null: nobody waits.
    const void* next() const noexcept { return m_line.empty() ? nullptr : m_line.front(); }

    /// When the turn of who stands in line comes without anybody's doing; max() for all but the first.
    Clock::time_point comesAt(const void* who) const noexcept;

private:
    std::deque<const void*> m_line;
    const void* m_owner = nullptr;  ///< of the turn; null: nobody
    Clock::time_point m_end;        ///< of the owner's turn
};

}  // namespace IPCService

#endif
