#ifndef IPCSERVICE_IPCSERVICETRANSMITTER_H
#define IPCSERVICE_IPCSERVICETRANSMITTER_H

#include <Poco/Net/SocketAddress.h>

namespace IPCService {

/// A way to send and receive single messages. No operation throws on a transport failure: it is logged and -1
/// returned (0 by PollRead).
class IPCServiceTransmitter
{
public:
    virtual ~IPCServiceTransmitter() = default;

    /// Sends to the connected peer. @return bytes sent, or -1
    virtual int sendBytes(const void* buffer, int length) = 0;

    /// Sends one message to an address. @return bytes sent, or -1
    virtual int sendTo(const void* buffer, int length, const Poco::Net::SocketAddress& address) = 0;

    /// Waits for one message and takes it, cut to length bytes. @return bytes received, or -1
    virtual int receiveBytes(void* buffer, int length) = 0;

    /// Like receiveBytes, and tells the sender's address. @return bytes received, or -1
    virtual int receiveFrom(void* buffer, int length, Poco::Net::SocketAddress& address) = 0;

    /// Waits for a message without taking it. @return non-zero when there is one, 0 after the time-out or a failure
    virtual int PollRead(long seconds, long microseconds) = 0;
};

}  // namespace IPCService

#endif
