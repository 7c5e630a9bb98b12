#ifndef IPCSERVICE_STOPSIGNALS_H
#define IPCSERVICE_STOPSIGNALS_H

#include <signal.h>

namespace IPCService {

/// Keeps the stop signals for the wait of the calling thread from now on, so that they end the service in order, with
/// its exit code. Main thread; the threads that it starts hold them back too.
void holdStopSignals();

/// Holds the stop signals back from the threads that are started meanwhile: they are for the main thread's wait, and
/// any other thread that took one would end the process by the signal.
class StopSignalsBlocked
{
public:
    StopSignalsBlocked();
    ~StopSignalsBlocked();
    StopSignalsBlocked(const StopSignalsBlocked&) = delete;
    StopSignalsBlocked& operator=(const StopSignalsBlocked&) = delete;

private:
    sigset_t m_before;
};

}  // namespace IPCService

#endif
