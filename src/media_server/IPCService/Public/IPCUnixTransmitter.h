#ifndef IPCSERVICE_IPCUNIXTRANSMITTER_H
#define IPCSERVICE_IPCUNIXTRANSMITTER_H

#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <sys/un.h>

#include <string>

#include "media_server/IPCService/Public/IPCServiceTransmitter.h"

namespace IPCService {

/// How datagrams leave this service: a full receiver queue or a missing peer fails at once, and never by a signal.
constexpr int DATAGRAM_SEND_FLAGS = MSG_DONTWAIT | MSG_NOSIGNAL;

/// Binds a socket to a path: removes a stale socket file first, and gives the new one mode 0660 whatever the umask.
/// @throws Poco::IOException when the path cannot be bound
void bindToPath(Poco::Net::DatagramSocket& socket, const Poco::Net::SocketAddress& address);

/// The path of a unix socket. Takes no memory of its own.
class SocketPath
{
public:
    bool operator==(const std::string& path) const { return path == m_text; }

private:
    friend SocketPath senderOfNextDatagram(int descriptor);
    char m_text[sizeof(sockaddr_un::sun_path) + 1] = {};  ///< one more, for a path that has no NUL
};

/// The path that the next datagram on a unix socket was sent from. The datagram stays.
/// @param descriptor  a socket on which one waits
/// @return empty when its sender has no path
SocketPath senderOfNextDatagram(int descriptor);

/// One unix datagram socket bound to a path. Has no lock: two threads must not both wait for replies on it.
/// Destruction closes the socket and leaves its file, which the next bind removes.
class IPCUnixTransmitter : public IPCServiceTransmitter
{
public:
    /// @param path  socket file to bind, see bindToPath
    /// @throws Poco::IOException when the path cannot be bound
    explicit IPCUnixTransmitter(const std::string& path);

    /// Not offered by unix datagram sockets: logs and returns -1.
    int sendBytes(const void* buffer, int length) override;

    int sendTo(const void* buffer, int length, const Poco::Net::SocketAddress& address) override;

    /// Like sendTo, for a message whose first failure is logged already: logs none.
    int sendAgain(const void* buffer, int length, const Poco::Net::SocketAddress& address);

    /// Waits without limit. @throws Interrupted when the calling thread is interrupted
    int receiveBytes(void* buffer, int length) override;

    /// Not offered by unix datagram sockets: logs and returns -1.
    int receiveFrom(void* buffer, int length, Poco::Net::SocketAddress& address) override;

    int PollRead(long seconds, long microseconds) override;

    /// The socket, to wait on together with others.
    int descriptor() const { return m_socket.impl()->sockfd(); }

private:
    Poco::Net::SocketAddress m_address;
    Poco::Net::DatagramSocket m_socket;
};

}  // namespace IPCService

#endif
