#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PlatformSocket.h"

#include <Poco/Ascii.h>
#include <Poco/Exception.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Net/SSLException.h>
#include <Poco/Net/SSLManager.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/SocketImpl.h>
#include <Poco/NumberFormatter.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <string>

#include "media_server/IPCService/Public/Interruption.h"

namespace IPCService {
namespace MetaDataGW {

namespace {

using Poco::Net::SecureStreamSocket;

constexpr std::chrono::seconds LONGEST_STEP(5);

thread_local ResumptionScope* t_pResumption = nullptr;

/// The time within which a step must end.
class Deadline
{
public:
    /// Waits for a socket. @return false when the time is over
    bool wait(const SecureStreamSocket& socket, short events) const
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_end - std::chrono::steady_clock::now());
        return left.count() > 0 && Interruption::wait(socket.impl()->sockfd(), events, static_cast<long>(left.count()));
    }

private:
    const std::chrono::steady_clock::time_point m_end = std::chrono::steady_clock::now() + LONGEST_STEP;
};

/// Repeats a step of the library until it no longer asks to wait for the peer. @return the step's result
/// @param pDeadline  for all waits together; null: each wait has its own
template <typename Step>
std::size_t complete(const SecureStreamSocket& socket, const Deadline* pDeadline, Step step)
{
    for (;;) {
        const int result = step();
        if (result != SecureStreamSocket::ERR_SSL_WANT_READ && result != SecureStreamSocket::ERR_SSL_WANT_WRITE) {
            return static_cast<std::size_t>(result);
        }
        const short events = result == SecureStreamSocket::ERR_SSL_WANT_READ ? POLLIN : POLLOUT;
        if (!(pDeadline != nullptr ? *pDeadline : Deadline()).wait(socket, events)) {
            throw Poco::TimeoutException();
        }
    }
}

/// The server name of the handshake: the host without the dot that a whole name may end with; none for an address, nor
/// for what only a resolver takes for one.
std::string serverNameOf(const std::string& host)
{
    Poco::Net::IPAddress address;
    const bool hasLetter = std::any_of(host.begin(), host.end(), [](char byte) { return Poco::Ascii::isAlpha(byte); });
    if (!hasLetter || Poco::Net::IPAddress::tryParse(host, address)) {
        return "";
    }
    return host.back() == '.' ? host.substr(0, host.size() - 1) : host;
}

/// Whether a connection ended that was not announced to. OpenSSL 3 has an error for it, for which only later versions
/// of the library have their exception.
bool isEndWithoutNotice(const Poco::Net::SSLException& exc)
{
    return dynamic_cast<const Poco::Net::SSLConnectionUnexpectedlyClosedException*>(&exc) != nullptr ||
           exc.message().find("unexpected eof while reading") != std::string::npos;
}

/// The library's own exceptions for failures of the system.
struct SystemFailure : Poco::Net::SocketImpl
{
    using SocketImpl::error;
};

using SessionCallback = int (*)(SSL*, SSL_SESSION*);

SessionCallback s_learnOfSession = nullptr;

/// @return as OpenSSL wants it: whether the session was taken
int learnOrForget(SSL* connection, SSL_SESSION* session) noexcept
{
    try {
        return s_learnOfSession(connection, session);
    } catch (const std::exception&) {
        return 0;
    }
}

}  // namespace

void forgetSessionsWithoutMemory(SSL_CTX* context)
{
    // Older versions of the library have none, and ask the connection.
    if (const SessionCallback own = SSL_CTX_sess_get_new_cb(context)) {
        s_learnOfSession = own;
        SSL_CTX_sess_set_new_cb(context, &learnOrForget);
    }
}

ResumptionScope::ResumptionScope()
{
    t_pResumption = this;
}

ResumptionScope::~ResumptionScope()
{
    t_pResumption = nullptr;
}

PlatformSocket::PlatformSocket(const std::string& host, Poco::UInt16 port)
    : m_socket(Poco::Net::SSLManager::instance().defaultClientContext())
{
    if (t_pResumption != nullptr) {
        connectResuming(*t_pResumption, host, port);
    } else {
        connect(host, port);
    }
}

void PlatformSocket::connectResuming(ResumptionScope& scope, const std::string& host, Poco::UInt16 port)
{
    const std::string server = host + ':' + Poco::NumberFormatter::format(port);
    if (server == scope.m_server) {
        m_socket.useSession(scope.m_pSession);
    }
    // A handshake that fails is not tried with that session again.
    scope.m_server.clear();
    connect(host, port);
    // The library counts a resumed session's users wrongly when it is asked for it again.
    if (!m_socket.sessionWasReused()) {
        scope.m_pSession = m_socket.currentSession();
    }
    scope.m_server = server;
}

void PlatformSocket::connect(const std::string& host, Poco::UInt16 port)
{
    const Poco::Net::SocketAddress address(host, port);
    m_socket.setPeerHostName(serverNameOf(host));
    const Deadline deadline;
    m_socket.connectNB(address);
    if (!deadline.wait(m_socket, POLLOUT)) {
        throw Poco::TimeoutException("connect timed out", address.toString());
    }
    if (const int failure = m_socket.impl()->socketError()) {
        SystemFailure::error(failure, address.toString());
    }
    // Without it the last piece of a request waits until the peer has acknowledged those before.
    m_socket.setNoDelay(true);
    if (complete(m_socket, &deadline, [this] { return m_socket.completeHandshake(); }) == 0) {
        throw Poco::Net::SSLConnectionUnexpectedlyClosedException();
    }
}

PlatformSocket::~PlatformSocket()
{
    try {
        m_socket.close();
    } catch (const Poco::Exception&) {
        // A peer that is gone need not be told.
    }
}

void PlatformSocket::send(const std::string& bytes)
{
    const Deadline deadline;
    for (std::size_t sent = 0; sent < bytes.size();) {
        sent += complete(m_socket, &deadline, [&] {
            return m_socket.sendBytes(bytes.data() + sent, static_cast<int>(bytes.size() - sent));
        });
    }
}

std::size_t PlatformSocket::receive(char* buffer, std::size_t size)
{
    try {
        return complete(m_socket, nullptr, [&] { return m_socket.receiveBytes(buffer, static_cast<int>(size)); });
    } catch (const Poco::Net::SSLException& exc) {
        if (isEndWithoutNotice(exc)) {
            throw Poco::Net::SSLConnectionUnexpectedlyClosedException("no close_notify");
        }
        throw;
    }
}

}  // namespace MetaDataGW
}  // namespace IPCService
