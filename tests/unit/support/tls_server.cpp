#include "support/tls_server.h"

#include <Poco/Version.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

constexpr long CERTIFICATE_SECONDS = 24L * 3600;

void require(bool condition, const char* what)
{
    if (!condition) {
        throw std::runtime_error(what);
    }
}

Key makeKey()
{
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> maker(EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr),
                                                                            &EVP_PKEY_CTX_free);
    EVP_PKEY* key = nullptr;
    require(maker && EVP_PKEY_keygen_init(maker.get()) == 1 &&
                EVP_PKEY_CTX_set_ec_paramgen_curve_nid(maker.get(), NID_X9_62_prime256v1) == 1 &&
                EVP_PKEY_keygen(maker.get(), &key) == 1,
            "cannot make a key");
    return Key(key, &EVP_PKEY_free);
}

Certificate makeCertificate(EVP_PKEY* key)
{
    Certificate certificate(X509_new(), &X509_free);
    X509_NAME* name = X509_get_subject_name(certificate.get());
    const std::array<unsigned char, 6> host = {'c', 'a', 'm', 'e', 'r', 'a'};
    require(X509_set_version(certificate.get(), 2) == 1 &&
                ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1) == 1 &&
                X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0) != nullptr &&
                X509_gmtime_adj(X509_getm_notAfter(certificate.get()), CERTIFICATE_SECONDS) != nullptr &&
                X509_set_pubkey(certificate.get(), key) == 1 &&
                X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, host.data(), host.size(), -1, 0) == 1 &&
                X509_set_issuer_name(certificate.get(), name) == 1 &&
                X509_sign(certificate.get(), key, EVP_sha256()) > 0,
            "cannot make a certificate");
    return certificate;
}

/** Value of the Content-Length header, 0 without one. */
std::size_t contentLength(const std::string& header)
{
    const std::string name = "\r\nContent-Length: ";
    const std::size_t begin = header.find(name);
    return begin == std::string::npos ? 0 : std::stoul(header.substr(begin + name.size()));
}

/** A TCP socket bound to a free loopback port. */
int boundSocket(std::uint16_t& port)
{
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    require(descriptor >= 0 && bind(descriptor, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
                getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) == 0,
            "cannot bind a loopback port");
    port = ntohs(address.sin_port);
    return descriptor;
}

}  // namespace

TlsConnection::TlsConnection(SSL_CTX* context, int descriptor)
    : m_ssl(SSL_new(context), &SSL_free), m_descriptor(descriptor)
{
    SSL_set_fd(m_ssl.get(), descriptor);
}

bool TlsConnection::shakeHands()
{
    m_secure = SSL_accept(m_ssl.get()) == 1;
    return m_secure;
}

std::string TlsConnection::readRequest()
{
    std::string text;
    std::array<char, 16384> buffer{};
    for (;;) {
        const std::size_t end = text.find("\r\n\r\n");
        if (end != std::string::npos && text.size() >= end + 4 + contentLength(text.substr(0, end))) {
            return text;
        }
        const int count = SSL_read(m_ssl.get(), buffer.data(), static_cast<int>(buffer.size()));
        if (count <= 0) {
            return text;
        }
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

std::string TlsConnection::serverName() const
{
    const char* const name = SSL_get_servername(m_ssl.get(), TLSEXT_NAMETYPE_host_name);
    return name != nullptr ? name : "";
}

bool TlsConnection::send(const std::string& bytes)
{
    return bytes.empty() || SSL_write(m_ssl.get(), bytes.data(), static_cast<int>(bytes.size())) > 0;
}

void TlsConnection::waitUntilClientLeaves()
{
    std::array<char, 4096> buffer{};
    while (recv(m_descriptor, buffer.data(), buffer.size(), 0) > 0) {
    }
}

void TlsConnection::waitUntilServerEnds() const
{
    // Asked for no event, poll tells of a connection that is shut down all the same.
    pollfd waited = {m_descriptor, 0, 0};
    poll(&waited, 1, -1);
}

bool TlsConnection::swallow(std::size_t count) const
{
    std::array<char, 16384> buffer{};
    while (count > 0) {
        const ssize_t read = recv(m_descriptor, buffer.data(), std::min(count, buffer.size()), 0);
        if (read <= 0) {
            return false;
        }
        count -= static_cast<std::size_t>(read);
    }
    return true;
}

bool TlsConnection::clientLeavesWithin(std::chrono::milliseconds pause) const
{
    pollfd waited = {m_descriptor, POLLRDHUP, 0};
    return poll(&waited, 1, static_cast<int>(pause.count())) != 0;
}

void TlsConnection::close()
{
    if (m_secure) {
        SSL_shutdown(m_ssl.get());
    }
    shutdown(m_descriptor, SHUT_RDWR);
}

void TlsConnection::hangUp()
{
    m_secure = false;
    shutdown(m_descriptor, SHUT_RDWR);
}

void TlsConnection::reset()
{
    // Closing with this option, and with nothing left to send, resets the connection.
    const linger atOnce = {1, 0};
    setsockopt(m_descriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
    const int nothing = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(nothing, m_descriptor);
    ::close(nothing);
}

TlsServer::TlsServer(Script script) : TlsServer(std::move(script), Options()) {}

TlsServer::TlsServer(Script script, const Options& options)
    : m_script(std::move(script)), m_options(options), m_context(SSL_CTX_new(TLS_server_method()), &SSL_CTX_free)
{
    const Key key = makeKey();
    const Certificate certificate = makeCertificate(key.get());
    require(SSL_CTX_use_PrivateKey(m_context.get(), key.get()) == 1 &&
                SSL_CTX_use_certificate(m_context.get(), certificate.get()) == 1 &&
                SSL_CTX_set_min_proto_version(m_context.get(), TLS1_2_VERSION) == 1 &&
                SSL_CTX_set_max_proto_version(m_context.get(), TLS1_2_VERSION) == 1,
            "cannot set up TLS");
    if (options.sessions != Options::Sessions::Tickets) {
        SSL_CTX_set_options(m_context.get(), SSL_OP_NO_TICKET);
    }
    if (options.sessions == Options::Sessions::None) {
        SSL_CTX_set_session_cache_mode(m_context.get(), SSL_SESS_CACHE_OFF);
    }
    SSL_CTX_set_client_hello_cb(m_context.get(), &TlsServer::look, this);
    m_listener = boundSocket(m_port);
    require(listen(m_listener, SOMAXCONN) == 0, "cannot listen");
    m_thread = std::thread([this] { serve(); });
}

TlsServer::~TlsServer()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ending = true;
        if (m_connection >= 0) {
            shutdown(m_connection, SHUT_RDWR);
        }
    }
    shutdown(m_listener, SHUT_RDWR);
    m_thread.join();
    close(m_listener);
}

std::vector<TlsServer::Handshake> TlsServer::handshakes() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_handshakes;
}

void TlsServer::forgetSessions()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    // Sessions and tickets of another context than the present one are not taken.
    ++m_sessionContext;
    require(SSL_CTX_set_session_id_context(m_context.get(), &m_sessionContext, 1) == 1, "cannot change the context");
}

/// Looks at a handshake's first message: at its session id and the extension that has its ticket.
int TlsServer::look(SSL* connection, int* /*alert*/, void* self)
{
    TlsServer& server = *static_cast<TlsServer*>(self);
    const unsigned char* bytes = nullptr;
    std::size_t size = 0;
    server.m_offered =
        SSL_client_hello_get0_session_id(connection, &bytes) > 0 ||
        (SSL_client_hello_get0_ext(connection, TLSEXT_TYPE_session_ticket, &bytes, &size) == 1 && size > 0);
    if (!server.m_offered || !server.m_options.refusesOffers) {
        return SSL_CLIENT_HELLO_SUCCESS;
    }
    // To be tried again, which the server does not do: the connection ends without an alert, by a reset.
    const linger atOnce = {1, 0};
    setsockopt(SSL_get_fd(connection), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    return SSL_CLIENT_HELLO_RETRY;
}

std::vector<std::string> TlsServer::requests() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
}

std::vector<std::string> TlsServer::bodies() const
{
    std::vector<std::string> result;
    for (const std::string& request : requests()) {
        const std::size_t end = request.find("\r\n\r\n");
        result.push_back(end == std::string::npos ? "" : request.substr(end + 4));
    }
    return result;
}

void TlsServer::serve()
{
    for (;;) {
        const int descriptor = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (descriptor < 0) {
            return;
        }
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (m_ending) {
                close(descriptor);
                return;
            }
            m_connection = descriptor;
        }
        ++m_accepted;
        serveConnection(descriptor);
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_connection = -1;
        close(descriptor);
    }
}

void TlsServer::serveConnection(int descriptor)
{
    TlsConnection connection(m_context.get(), descriptor);
    if (!connection.shakeHands()) {
        return;
    }
    std::string request;
    if (m_options.readRequests) {
        request = connection.readRequest();
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_requests.push_back(request);
        m_handshakes.push_back({m_offered, connection.resumed(), connection.serverName()});
    }
    m_script(connection, request);
    connection.close();
}

void writeCertificate(const std::string& path)
{
    const Key key = makeKey();
    const Certificate certificate = makeCertificate(key.get());
    const std::unique_ptr<BIO, decltype(&BIO_free)> file(BIO_new_file(path.c_str(), "w"), &BIO_free);
    require(file && PEM_write_bio_X509(file.get(), certificate.get()) == 1, "cannot write a certificate");
}

FullListener::FullListener() : m_listener(boundSocket(m_port))
{
    require(listen(m_listener, 0) == 0, "cannot listen");
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(m_port);
    // A queue of length 0 takes one connection; one more than that is certain to wait.
    for (int i = 0; i < 2; ++i) {
        m_clients.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        connect(m_clients.back(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    }
}

FullListener::~FullListener()
{
    for (const int client : m_clients) {
        close(client);
    }
    close(m_listener);
}

std::uint16_t unusedPort()
{
    std::uint16_t port = 0;
    close(boundSocket(port));
    return port;
}

std::vector<bool> endsWithoutNotice()
{
    return POCO_VERSION >= 0x010D0000 ? std::vector<bool>{false} : std::vector<bool>{false, true};
}
