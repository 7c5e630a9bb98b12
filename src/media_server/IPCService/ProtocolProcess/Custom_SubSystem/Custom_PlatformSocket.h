#ifndef CUSTOM_SUBSYSTEM_CUSTOM_PLATFORMSOCKET_H
#define CUSTOM_SUBSYSTEM_CUSTOM_PLATFORMSOCKET_H

#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Net/Session.h>
#include <Poco/Types.h>
#include <openssl/ssl.h>

#include <cstddef>
#include <string>

namespace IPCService {
namespace MetaDataGW {

/// While it exists, each connection of its thread resumes the TLS session of the one before to the same server, which
/// saves the server its signature and the line a round trip. A server that knows the session no longer, or has none,
/// shakes hands in full. Its end is the end of the session, whose secret nothing keeps longer. Scopes do not nest.
class ResumptionScope
{
public:
    ResumptionScope();
    ~ResumptionScope();
    ResumptionScope(const ResumptionScope&) = delete;
    ResumptionScope& operator=(const ResumptionScope&) = delete;

private:
    friend class PlatformSocket;

    std::string m_server;  ///< whose session it is: host and port
    Poco::Net::Session::Ptr m_pSession;
};

/// Has a context's connections learn of their sessions where that takes memory and there is none: what the library
/// learns them by throws through OpenSSL, which ends the process. The session is then forgotten, and the next handshake
/// is a full one. For contexts of the library alone.
void forgetSessionsWithoutMemory(SSL_CTX* context);

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
    void connect(const std::string& host, Poco::UInt16 port);
    void connectResuming(ResumptionScope& scope, const std::string& host, Poco::UInt16 port);

    Poco::Net::SecureStreamSocket m_socket;
};

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
