#ifndef IPCSERVICE_WAKEUP_H
#define IPCSERVICE_WAKEUP_H

namespace IPCService {

/// Wakes a thread that waits: a descriptor that another thread makes readable. Unlike a condition it can be waited for
/// together with sockets. Every operation may be called from any thread.
class WakeUp
{
public:
    /// @throws Poco::SystemException when no descriptor is free
    WakeUp();
    ~WakeUp();
    WakeUp(const WakeUp&) = delete;
    WakeUp& operator=(const WakeUp&) = delete;

    /// Makes the descriptor readable; it stays so until it is cleared.
    void signal() const noexcept;

    void clear() const noexcept;

    /// What to wait for; not to be read or closed.
    int descriptor() const noexcept { return m_descriptor; }

private:
    int m_descriptor;
};

}  // namespace IPCService

#endif
