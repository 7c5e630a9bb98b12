#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PlatformSession.h"

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SSLException.h>
#include <Poco/Net/SSLManager.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Net/SecureStreamSocketImpl.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/NumberFormatter.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <istream>
#include <new>
#include <ostream>
#include <utility>

#include "media_server/IPCService/Public/Interruption.h"

#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23  // the kernel may know it although the C library's headers do not
#endif

namespace IPCService {
namespace MetaDataGW {

namespace {

using Poco::Net::SecureStreamSocket;
using Poco::Net::SecureStreamSocketImpl;

constexpr std::chrono::seconds LONGEST_STEP(5);
constexpr std::size_t COPY_BUFFER_SIZE = 8192;
constexpr Poco::Int64 LONGEST_RESERVED_BODY = 64 << 20;  // bytes; address space is scarce on 32 bit
constexpr std::size_t LONGEST_TRAILER = 8192;            // bytes of its name
constexpr std::size_t SUPPLIED_SIZE = 64 << 10;          // bytes
/// Several times what 30 large pictures take; without a bound a platform could have all of the memory.
constexpr std::size_t LARGEST_BODY = 128 << 20;  // bytes

/// The time within which a step must end.
class Deadline
{
public:
    Deadline() : m_end(std::chrono::steady_clock::now() + LONGEST_STEP) {}

    /// Waits for a socket.
    /// @throws Poco::TimeoutException when the time is over
    void wait(int descriptor, short events) const
    {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(m_end - std::chrono::steady_clock::now()).count();
        if (left <= 0 || !Interruption::wait(descriptor, events, static_cast<long>(left))) {
            throw Poco::TimeoutException();
        }
    }

private:
    std::chrono::steady_clock::time_point m_end;
};

/// A TLS socket that never blocks inside the library: whenever the library would wait for the peer, the wait happens
/// here, where it has an end and can be interrupted. The library's own time-out covers neither the handshake nor,
/// from 1.11 on, a read, which it tries twice.
class PlatformSocketImpl : public SecureStreamSocketImpl
{
public:
    /// Connects and shakes hands.
    PlatformSocketImpl(Poco::Net::Context::Ptr pContext, const std::string& host,
                       const Poco::Net::SocketAddress& address)
        : SecureStreamSocketImpl(std::move(pContext))
    {
        const Deadline deadline;
        setPeerHostName(host);
        connectNB(address);
        deadline.wait(sockfd(), POLLOUT);
        if (const int failure = socketError()) {
            SocketImpl::error(failure, address.toString());
        }
        complete(&deadline, [this] { return completeHandshake(); });
        m_sendDeadline = Deadline();
    }

    /// One request is sent over the socket, right after the handshake: all of it has to leave in time.
    int sendBytes(const void* buffer, int length, int flags) override
    {
        return complete(&m_sendDeadline, [&] { return SecureStreamSocketImpl::sendBytes(buffer, length, flags); });
    }

    /// A peer that closes without the TLS farewell has closed nevertheless: whether the response was complete shows
    /// in the response.
    int receiveBytes(void* buffer, int length, int flags) override
    {
        int count = 0;
        try {
            count = complete(nullptr, [&] { return SecureStreamSocketImpl::receiveBytes(buffer, length, flags); });
        } catch (const Poco::Net::SSLConnectionUnexpectedlyClosedException&) {
            count = 0;
        }
        m_bPeerClosed = m_bPeerClosed || count == 0;
        return count;
    }

    /// True when the peer closed the connection while more was to be read.
    bool peerClosed() const { return m_bPeerClosed; }

protected:
    ~PlatformSocketImpl() override = default;

private:
    /// Repeats a step of the library until it no longer asks to wait for the peer.
    /// @param pDeadline  for all waits together; null: each wait has its own
    template <typename Step>
    int complete(const Deadline* pDeadline, Step step)
    {
        for (;;) {
            const int result = step();
            if (result == SecureStreamSocket::ERR_SSL_WANT_READ) {
                (pDeadline != nullptr ? *pDeadline : Deadline()).wait(sockfd(), POLLIN);
            } else if (result == SecureStreamSocket::ERR_SSL_WANT_WRITE) {
                (pDeadline != nullptr ? *pDeadline : Deadline()).wait(sockfd(), POLLOUT);
            } else {
                return result;
            }
        }
    }

    Deadline m_sendDeadline;
    bool m_bPeerClosed = false;
};

/// Gives a socket implementation to the library.
class PlatformSocket : public SecureStreamSocket
{
public:
    explicit PlatformSocket(PlatformSocketImpl* pImpl) : SecureStreamSocket(pImpl) {}
};

/// A client session over one PlatformSocket.
class PlatformSession : public Poco::Net::HTTPSClientSession
{
public:
    PlatformSession(const std::string& host, Poco::UInt16 port) : HTTPSClientSession(host, port) {}

    /// Throws what a stream of this session swallowed.
    void rethrowFailure() const
    {
        Interruption::check();
        if (const Poco::Exception* pFailure = networkException()) {
            pFailure->rethrow();
        }
    }

    /// True when a chunked body broke off. The library takes a closed connection and a size that is no number for the
    /// end of the body; behind a real end stands nothing but trailers.
    bool chunksBrokeOff() { return (buffered() > 0 && !isTrailerNext()) || m_pSocket->peerClosed(); }

protected:
    void connect(const Poco::Net::SocketAddress& address) override
    {
        // A session with keep-alive answers a failed write with a second try over a new connection. The failure that
        // is reported is the first.
        if (!m_pSocket.isNull()) {
            throw Poco::Net::ConnectionResetException();
        }
        m_pSocket =
            new PlatformSocketImpl(Poco::Net::SSLManager::instance().defaultClientContext(), getHost(), address);
        attachSocket(PlatformSocket(m_pSocket.duplicate()));
    }

private:
    /// Reads a line, which may come in pieces, as far as it takes to know it.
    /// @return true for a trailer, and for the empty line that ends them
    bool isTrailerNext()
    {
        std::string line;
        while (line.size() < LONGEST_TRAILER) {
            const int character = get();
            if (character == std::char_traits<char>::eof()) {
                break;
            }
            line += static_cast<char>(character);
            if (character == ':' || character == '\n') {
                return character == ':' || line == "\r\n";
            }
        }
        return false;
    }

    Poco::AutoPtr<PlatformSocketImpl> m_pSocket;
};

/// A path as it can stand in a request line: absolute, and with blanks, line ends and whatever is not ASCII escaped.
std::string requestTarget(const std::string& path)
{
    std::string target;
    if (path.compare(0, 1, "/") != 0) {
        target += '/';
    }
    for (const char character : path) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte > ' ' && byte < 0x7F) {
            target += character;
        } else {
            target += '%' + Poco::NumberFormatter::formatHex(byte, 2);
        }
    }
    return target;
}

/// A connection that ends early looks to the library like the end of the body.
bool isCutOff(PlatformSession& session, const Poco::Net::HTTPResponse& response, const std::string& text)
{
    using Poco::Net::HTTPResponse;
    const auto status = response.getStatus();
    if (status < HTTPResponse::HTTP_OK || status == HTTPResponse::HTTP_NO_CONTENT ||
        status == HTTPResponse::HTTP_NOT_MODIFIED) {
        return false;
    }
    if (response.getChunkedTransferEncoding()) {
        return session.chunksBrokeOff();
    }
    return response.hasContentLength() && static_cast<Poco::Int64>(text.size()) < response.getContentLength64();
}

/// Makes room for the whole body: a text that grows is in memory twice while it moves. Room costs address space only,
/// until bytes come.
void reserveBody(std::string& text, const Poco::Net::HTTPResponse& response)
{
    if (response.hasContentLength()) {
        if (response.getContentLength64() <= LONGEST_RESERVED_BODY) {
            text.reserve(static_cast<std::size_t>(std::max<Poco::Int64>(response.getContentLength64(), 0)));
        }
        return;
    }
    try {
        text.reserve(LONGEST_RESERVED_BODY);
    } catch (const std::bad_alloc&) {
        text.clear();  // no such room for a length that nobody told: it grows
    }
}

/// Has the kernel supply the memory behind a text in one go: a fault for every 4 KB costs more than reading them. A
/// kernel before 5.14 refuses, and supplies it fault by fault.
void supplyMemory(std::string& text)
{
    const std::size_t pageMask = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)) - 1;
    const auto address = reinterpret_cast<std::uintptr_t>(text.data());
    const std::uintptr_t begin = (address + text.size() + pageMask) & ~pageMask;
    const std::uintptr_t end = (address + std::min(text.size() + SUPPLIED_SIZE, text.capacity())) & ~pageMask;
    if (begin < end) {
        ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_WRITE);
    }
}

/// Reads a response's body to its end.
/// @throws Poco::Net::MessageException when it is larger than any page
std::string readBody(std::istream& stream, const Poco::Net::HTTPResponse& response)
{
    std::string text;
    reserveBody(text, response);
    std::size_t supplied = SUPPLIED_SIZE;  // a short text takes no memory beforehand
    char buffer[COPY_BUFFER_SIZE];
    while (stream.read(buffer, sizeof(buffer)) || stream.gcount() > 0) {
        if (text.size() >= supplied) {
            supplyMemory(text);
            supplied = text.size() + SUPPLIED_SIZE;
        }
        text.append(buffer, static_cast<std::size_t>(stream.gcount()));
        if (text.size() > LARGEST_BODY) {
            throw Poco::Net::MessageException("response is too large");
        }
    }
    return text;
}

}  // namespace

std::string exchangeWithPlatform(const std::string& host, Poco::UInt16 port, Poco::Net::HTTPRequest& request,
                                 const std::string& body, Poco::Net::HTTPResponse& response)
{
    request.setURI(requestTarget(request.getURI()));
    PlatformSession session(host, port);
    // A session without keep-alive would rewrite the request's own header.
    session.setKeepAlive(request.getKeepAlive() && request.has(Poco::Net::HTTPMessage::CONNECTION));

    std::ostream& requestStream = session.sendRequest(request);
    requestStream.write(body.data(), static_cast<std::streamsize>(body.size()));
    requestStream.flush();
    session.rethrowFailure();

    std::istream& responseStream = session.receiveResponse(response);
    std::string text = readBody(responseStream, response);
    session.rethrowFailure();
    if (isCutOff(session, response, text)) {
        throw Poco::Net::MessageException("response ends before its end");
    }
    return text;
}

}  // namespace MetaDataGW
}  // namespace IPCService
