#include "played_platform.h"

#include <Poco/Net/NetException.h>
#include <Poco/Net/SSLException.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Net/SecureStreamSocketImpl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "oracle.h"

PlayedPlatform& PlayedPlatform::instance()
{
    static PlayedPlatform& platform = *new PlayedPlatform;
    return platform;
}

PlayedPlatform::PlayedPlatform() : m_descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    require(m_descriptor >= 0, "there is a free descriptor");
}

void PlayedPlatform::begin()
{
    responses.clear();
    fragments.clear();
    end = End::Closed;
    requests.clear();
}

bool PlayedPlatform::isReady(short events) const
{
    return (events & POLLOUT) != 0 || m_read < m_response.size() || end != End::Silent;
}

int PlayedPlatform::connect()
{
    if (responses.empty()) {
        throw Poco::Net::ConnectionRefusedException();
    }
    m_response = responses.front();
    responses.pop_front();
    m_read = 0;
    m_waited = false;
    requests.emplace_back();
    return m_descriptor;
}

int PlayedPlatform::send(const char* bytes, int length)
{
    requests.back().append(bytes, static_cast<std::size_t>(length));
    return length;
}

int PlayedPlatform::receive(char* buffer, int length)
{
    if (m_read == m_response.size()) {
        switch (end) {
            case End::Closed:
                return 0;
            case End::ClosedWithoutFarewell:
                throw Poco::Net::SSLConnectionUnexpectedlyClosedException();
            case End::Reset:
                throw Poco::Net::ConnectionResetException();
            case End::Silent:
                return Poco::Net::SecureStreamSocket::ERR_SSL_WANT_READ;
        }
    }
    std::size_t fragment = m_response.size();
    if (!fragments.empty()) {
        fragment = static_cast<unsigned char>(fragments[m_fragment % fragments.size()]);
        if (fragment == 0 && !m_waited) {
            m_waited = true;
            return Poco::Net::SecureStreamSocket::ERR_SSL_WANT_READ;
        }
        ++m_fragment;
        m_waited = false;
    }
    const std::size_t size =
        std::min({std::max<std::size_t>(fragment, 1), m_response.size() - m_read, static_cast<std::size_t>(length)});
    std::memcpy(buffer, m_response.data() + m_read, size);
    m_read += size;
    return static_cast<int>(size);
}

// These come before the library's own, which refers to them by name as well.
namespace Poco {
namespace Net {

void SecureStreamSocketImpl::connectNB(const SocketAddress& /*address*/)
{
    reset(PlayedPlatform::instance().connect());
}

int SecureStreamSocketImpl::completeHandshake()
{
    return 1;
}

int SecureStreamSocketImpl::sendBytes(const void* buffer, int length, int /*flags*/)
{
    return PlayedPlatform::instance().send(static_cast<const char*>(buffer), length);
}

int SecureStreamSocketImpl::receiveBytes(void* buffer, int length, int /*flags*/)
{
    return PlayedPlatform::instance().receive(static_cast<char*>(buffer), length);
}

}  // namespace Net
}  // namespace Poco
