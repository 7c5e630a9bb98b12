#ifndef CUSTOM_SUBSYSTEM_CUSTOM_PLATFORMSOCKET_H
#define CUSTOM_SUBSYSTEM_CUSTOM_PLATFORMSOCKET_H

#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Types.h>

#include <cstddef>
#include <string>

namespace IPCService {
namespace MetaDataGW {

/// A TLS connection with the process's default client context that never blocks inside the library: the library's own
/// time-out covers neither the handshake nor, from 1.11 on, a read, which it tries twice. Every function throws
/// Poco::Exception when it fails or takes longer than 5 seconds, and Interrupted when the thread is interrupted.
class PlatformSocket
{
public:
    /// Connects and shakes hands. Looking up a name is not counted in the 5 seconds.
    PlatformSocket(const std::string& host, Poco::UInt16 port);
    ~PlatformSocket();
    PlatformSocket(const PlatformSocket&) = delete;
    PlatformSocket& operator=(const PlatformSocket&) = delete;

    void send(const std::string& bytes);

    /// Receives what there is, or comes next.
    /// @return how many bytes; 0 when the peer has announced the end (close_notify). A connection that ends without
    ///         that notice is a failure: anybody may have cut it.
    std::size_t receive(char* buffer, std::size_t size);

private:
    Poco::Net::SecureStreamSocket m_socket;
};

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
