#ifndef IPCSERVICE_IPCSERVICECOMMPROTOCOL_H
#define IPCSERVICE_IPCSERVICECOMMPROTOCOL_H

#include <string>

namespace IPCService {

/// Sends and receives messages that carry a command.
/// @tparam Command  the command codes
/// @tparam Message  the message structure
template <typename Command, typename Message>
class IPCServiceCommProtocol
{
public:
    virtual ~IPCServiceCommProtocol() = default;

    /// Sends a message. @return bytes sent, or -1
    virtual int send(const std::string& destPath, const Command& cmd, const Message& msg) = 0;

    /// Waits for a message. @param cmd  set to the command found in msg @return bytes received, or -1
    virtual int receive(Command& cmd, Message& msg) = 0;

    /// Waits for a message without taking it. @return non-zero when there is one
    virtual int poll(long seconds, long microseconds) = 0;
};

}  // namespace IPCService

#endif
