#ifndef IPCSERVICE_INTERRUPTION_H
#define IPCSERVICE_INTERRUPTION_H

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
        explicit Scope(Interruption& interruption) noexcept;
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        Interruption* m_pOuter;
    };

    /// @throws Poco::SystemException when no descriptor is free
    Interruption();
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    /// Ends the bound thread's present wait and all later ones. There is no way back.
    void interrupt() const noexcept;

    /// @throws Interrupted when the calling thread is interrupted
    static void check();

    /// Waits until a descriptor is ready.
    ///
    /// @param descriptor    what to wait for; a bad one counts as ready, so that its next use reports the failure
    /// @param events        POLLIN or POLLOUT
    /// @param milliseconds  longest wait; negative: no limit
    /// @return true when ready, false after the time-out
    /// @throws Interrupted when the calling thread is interrupted
    static bool wait(int descriptor, short events, long milliseconds);

    /// Sleeps. @throws Interrupted when the calling thread is interrupted
    static void sleep(long milliseconds);

private:
    int m_descriptor;  ///< an event descriptor that becomes readable with interrupt() and stays so
};

}  // namespace IPCService

#endif
