#include "in_process_platform.h"

#include <Poco/Net/NetException.h>
#include <Poco/Net/SSLException.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Net/SecureStreamSocketImpl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "oracle.h"

InProcessPlatform& InProcessPlatform::instance()
{
    static InProcessPlatform& platform = *new InProcessPlatform;
    return platform;
}

InProcessPlatform::InProcessPlatform() : m_descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    require(m_descriptor >= 0, "there is a free descriptor");
}

void InProcessPlatform::begin()
{
    serve(0, nullptr);
    fragments.clear();
    requests.clear();
}

void InProcessPlatform::serve(std::size_t connections, PlatformScript script)
{
    m_connections = connections;
    m_script = std::move(script);
}

/// The whole request is there when the service first waits for its response, or reads.
void InProcessPlatform::answer()
{
    if (!m_answered) {
        m_answered = true;
        m_script(*this, requests.back());
    }
}

bool InProcessPlatform::isReady(short events)
{
    if ((events & POLLOUT) != 0) {
        return true;
    }
    answer();
    return m_read < m_response.size() || m_end != End::Silent;
}

bool InProcessPlatform::send(const std::string& bytes)
{
    m_response += bytes;
    return true;
}

int InProcessPlatform::connect()
{
    if (m_connections == 0) {
        throw Poco::Net::ConnectionRefusedException();
    }
    --m_connections;
    m_answered = false;
    m_response.clear();
    m_end = End::Closed;
    m_read = 0;
    m_waited = false;
    requests.emplace_back();
    return m_descriptor;
}

int InProcessPlatform::take(const char* bytes, int length)
{
    requests.back().append(bytes, static_cast<std::size_t>(length));
    return length;
}

int InProcessPlatform::giveEnd() const
{
    switch (m_end) {
        case End::ClosedWithoutNotice:
            throw Poco::Net::SSLConnectionUnexpectedlyClosedException();
        case End::Reset:
            throw Poco::Net::ConnectionResetException();
        case End::Silent:
            return Poco::Net::SecureStreamSocket::ERR_SSL_WANT_READ;
        default:
            return 0;
    }
}

int InProcessPlatform::give(char* buffer, int length)
{
    answer();
    if (m_read == m_response.size()) {
        return giveEnd();
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
    reset(InProcessPlatform::instance().connect());
}

int SecureStreamSocketImpl::completeHandshake()
{
    return 1;
}

int SecureStreamSocketImpl::sendBytes(const void* buffer, int length, int /*flags*/)
{
    return InProcessPlatform::instance().take(static_cast<const char*>(buffer), length);
}

int SecureStreamSocketImpl::receiveBytes(void* buffer, int length, int /*flags*/)
{
    return InProcessPlatform::instance().give(static_cast<char*>(buffer), length);
}

}  // namespace Net
}  // namespace Poco
