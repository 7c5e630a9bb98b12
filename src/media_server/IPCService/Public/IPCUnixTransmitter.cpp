#include "media_server/IPCService/Public/IPCUnixTransmitter.h"

#include <Poco/Exception.h>
#include <Poco/Timespan.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>

#include "bounds_checked.h"
#include "media_server/IPCService/Public/Interruption.h"
#include "media_server/IPCService/Public/ServiceLog.h"

namespace IPCService {

namespace {

constexpr LogSource LOG_SOURCE{"media_server/IPCService/Public/IPCUnixTransmitter"};

}  // namespace

void bindToPath(Poco::Net::DatagramSocket& socket, const Poco::Net::SocketAddress& address)
{
    const std::string path = address.toString();
    ::unlink(path.c_str());
    socket.bind(address, false);
    ::chmod(path.c_str(), 0660);
}

SocketPath senderOfNextDatagram(int descriptor)
{
    sockaddr_un sender = {};
    socklen_t length = sizeof(sender);
    char byte = 0;
    SocketPath path;
    const ssize_t size = ::recvfrom(descriptor, &byte, sizeof(byte), MSG_PEEK | MSG_DONTWAIT,
                                    reinterpret_cast<sockaddr*>(&sender), &length);
    // The address of a sender without a path ends before the path.
    if (size >= 0 && length > offsetof(sockaddr_un, sun_path)) {
        memcpy_s(path.m_text, sizeof(path.m_text), sender.sun_path, sizeof(sender.sun_path));
    }
    return path;
}

IPCUnixTransmitter::IPCUnixTransmitter(const std::string& path) : m_address(Poco::Net::AddressFamily::UNIX_LOCAL, path)
{
    bindToPath(m_socket, m_address);
}

int IPCUnixTransmitter::sendBytes(const void* /*buffer*/, int /*length*/)
{
    LOG(Error, "unix socket not support this method!");
    return -1;
}

int IPCUnixTransmitter::sendTo(const void* buffer, int length, const Poco::Net::SocketAddress& address)
{
    try {
        return m_socket.sendTo(buffer, length, address, DATAGRAM_SEND_FLAGS);
    } catch (const Poco::Exception& exc) {
        LOG(Error, "sendTo fail:%s.", exc.displayText().c_str());
        return -1;
    }
}

int IPCUnixTransmitter::sendAgain(const void* buffer, int length, const Poco::Net::SocketAddress& address)
{
    try {
        return m_socket.sendTo(buffer, length, address, DATAGRAM_SEND_FLAGS);
    } catch (const Poco::Exception&) {
        return -1;
    }
}

int IPCUnixTransmitter::receiveBytes(void* buffer, int length)
{
    try {
        Interruption::wait(descriptor(), POLLIN, -1);
        return m_socket.receiveBytes(buffer, length, 0);
    } catch (const Poco::Exception& exc) {
        LOG(Error, "receiveBytes fail:%s.", exc.displayText().c_str());
        return -1;
    }
}

int IPCUnixTransmitter::receiveFrom(void* /*buffer*/, int /*length*/, Poco::Net::SocketAddress& /*address*/)
{
    LOG(Error, "unix socket not support this method!");
    return -1;
}

int IPCUnixTransmitter::PollRead(long seconds, long microseconds)
{
    try {
        return m_socket.poll(Poco::Timespan(seconds, microseconds), Poco::Net::Socket::SELECT_READ) ? 1 : 0;
    } catch (const Poco::Exception& exc) {
        LOG(Error, "PollRead fail:%s.", exc.displayText().c_str());
        return 0;
    } catch (...) {
        LOG(Error, "unknown exception");
        return 0;
    }
}

}  // namespace IPCService
