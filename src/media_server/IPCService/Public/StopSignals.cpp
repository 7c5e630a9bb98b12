#include "media_server/IPCService/Public/StopSignals.h"

namespace IPCService {

namespace {

/// Holds the stop signals back from the calling thread. @return the thread's signal mask before
sigset_t blockStopSignals()
{
    sigset_t stopSignals = {};
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGQUIT);
    sigaddset(&stopSignals, SIGTERM);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &stopSignals, &before);
    return before;
}

}  // namespace

void holdStopSignals()
{
    blockStopSignals();
}

StopSignalsBlocked::StopSignalsBlocked() : m_before(blockStopSignals()) {}

StopSignalsBlocked::~StopSignalsBlocked()
{
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}

}  // namespace IPCService
