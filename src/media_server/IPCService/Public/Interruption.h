#ifndef IPCSERVICE_INTERRUPTION_H
#define IPCSERVICE_INTERRUPTION_H

#include <chrono>
#include <initializer_list>

#include "media_server/IPCService/Public/WakeUp.h"

namespace IPCService {

/// Thrown where an interrupted thread would wait. It unwinds the thread's work up to its task. It is no failure, so
/// it is not derived from any exception class: handlers that turn failures into replies or log lines let it pass.
struct Interrupted
{
};

/// Ends whatever a task's thread waits for.
///
/// Cancelling a thread from outside would unwind it through the task framework, which ends the process. So every
/// place of this service that can wait for long does it through wait() or sleep(), and a task that is to end has its
/// interruption requested: the wait, and each later one, then throws Interrupted.
///
/// A task owns one Interruption and binds it to its thread with a Scope. interrupt() may be called from any thread,
/// before, during and after the task's run; everything else concerns the calling thread only.
class Interruption
{
public:
    /// Binds an interruption to the calling thread for the scope's lifetime. The interruption must outlive it.
    class Scope
    {
    public:
        explicit Scope(const Interruption& bound) noexcept;
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        const WakeUp* m_pOuter;
    };

    using Clock = std::chrono::steady_clock;

    /// Ends the bound thread's present wait and all later ones. There is no way back.
    void interrupt() const noexcept { m_wakeUp.signal(); }

    /// Whoever logs failures calls it first: an interrupted thread fails in many ways on its way out, and none of them
    /// is worth a line.
    /// @throws Interrupted when the calling thread is interrupted
    static void check();

    /// Waits until a descriptor is ready.
    ///
    /// @param descriptor    what to wait for; one that is closed, -1 too, counts as ready, so that its next use reports
    /// the failure
    /// @param events        POLLIN or POLLOUT
    /// @param milliseconds  longest wait; negative: no limit
    /// @return true when ready, false after the time-out
    /// @throws Interrupted when the calling thread is interrupted
    static bool wait(int descriptor, short events, long milliseconds);

    /// Waits until one of a few descriptors is readable, see wait().
    ///
    /// @param descriptors  two at most
    /// @param deadline     Clock::time_point::max(): no limit
    /// @return true when one is readable, false after the deadline
    static bool waitForAny(std::initializer_list<int> descriptors, Clock::time_point deadline);

    /// Sleeps. @throws Interrupted when the calling thread is interrupted
    static void sleep(long milliseconds);

private:
    WakeUp m_wakeUp;  ///< signalled with interrupt(), and never cleared
};

}  // namespace IPCService

#endif
