#ifndef TESTS_UNIT_SUPPORT_TLS_SERVER_H
#define TESTS_UNIT_SUPPORT_TLS_SERVER_H

#include <openssl/ssl.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/played_platform.h"

/** One accepted connection of a TlsServer, for the script that answers it. Used on the server's thread. */
class TlsConnection : public PlayedConnection
{
public:
    TlsConnection(SSL_CTX* context, int descriptor);

    /** @return false when the client breaks the handshake off */
    bool shakeHands();

    /** Reads one request: the header, and behind it as many bytes as its Content-Length says. What there is when the
        client leaves before. */
    std::string readRequest();

    bool send(const std::string& bytes) override;
    void hangUp() override;
    void reset() override;
    void waitUntilClientLeaves() override;

    /** Waits until the server ends, without reading. */
    void waitUntilServerEnds() const;

    /** Reads so many bytes as they come over the wire, encrypted. @return false when the client leaves before */
    bool swallow(std::size_t count) const;

    /** Pauses. @return true when the client leaves meanwhile */
    bool clientLeavesWithin(std::chrono::milliseconds pause) const;

    /** The server name of the client's handshake, empty without one. */
    std::string serverName() const;

    /** @return true when the client has told that it sends nothing more, and readRequest() got that far */
    bool endIsAnnounced() const { return (SSL_get_shutdown(m_ssl.get()) & SSL_RECEIVED_SHUTDOWN) != 0; }

    bool resumed() const { return SSL_session_reused(m_ssl.get()) == 1; }

    /** Ends the connection the proper way, with the notice that it ends. */
    void close();

private:
    std::unique_ptr<SSL, decltype(&SSL_free)> m_ssl;
    int m_descriptor;
    bool m_secure = false;
};

/** An HTTPS server on a loopback port of the system's choice, with a self-signed certificate made at its start. It
    serves one connection after the other on a thread of its own and answers with whatever bytes its script sends. */
class TlsServer
{
public:
    /** Answers one request. The connection is closed when it returns. */
    using Script = std::function<void(TlsConnection& connection, const std::string& request)>;

    struct Options
    {
        /** false: the script is called with an empty request right after the handshake */
        bool readRequests = true;
        /** Whether sessions can be resumed by ticket, by id, or not at all. */
        enum class Sessions { Tickets, Ids, None } sessions = Sessions::Tickets;
        /** Whether a handshake that offers a session is reset, without an alert. */
        bool refusesOffers = false;
    };

    struct Handshake
    {
        bool offered; /**< whether the client offered a session */
        bool resumed;
        std::string serverName; /**< empty without one */
    };

    explicit TlsServer(Script script);
    TlsServer(Script script, const Options& options);
    ~TlsServer();
    TlsServer(const TlsServer&) = delete;
    TlsServer& operator=(const TlsServer&) = delete;

    std::uint16_t port() const { return m_port; }

    /** Connections accepted until now. */
    int accepted() const { return m_accepted; }

    /** The handshakes that came to their end, in the order of the requests. */
    std::vector<Handshake> handshakes() const;

    /** From here on no session of before can be resumed. */
    void forgetSessions();

    /** The bytes of each request, in the order of their arrival. */
    std::vector<std::string> requests() const;

    /** The bytes behind the header of each request. */
    std::vector<std::string> bodies() const;

private:
    static int look(SSL* connection, int* alert, void* self);
    void serve();
    void serveConnection(int descriptor);

    const Script m_script;
    const Options m_options;
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> m_context;
    int m_listener = -1;
    std::uint16_t m_port = 0;
    std::atomic<int> m_accepted{0};
    mutable std::mutex m_mutex;
    int m_connection = -1;               /**< the present connection; guarded by m_mutex */
    bool m_ending = false;               /**< guarded by m_mutex */
    std::vector<std::string> m_requests; /**< guarded by m_mutex */
    std::vector<Handshake> m_handshakes; /**< guarded by m_mutex */
    unsigned char m_sessionContext = 0;  /**< guarded by m_mutex */
    bool m_offered = false;              /**< by the present connection; for the server's thread only */
    std::thread m_thread;
};

/** Writes a self-signed certificate of its own as a PEM file. */
void writeCertificate(const std::string& path);

/** A listener on a loopback port whose queue is full: whoever connects to it waits. */
class FullListener
{
public:
    FullListener();
    ~FullListener();
    FullListener(const FullListener&) = delete;
    FullListener& operator=(const FullListener&) = delete;

    std::uint16_t port() const { return m_port; }

private:
    std::uint16_t m_port = 0;
    int m_listener = -1;
    std::vector<int> m_clients;
};

/** A loopback port that nobody listens on. */
std::uint16_t unusedPort();

/** How a connection can end without notice, for tlsEndWithoutNoticeFails: as with OpenSSL 3, and as with those before.
    POCO 1.13 takes the latter for an announced end; no system has it with such an OpenSSL. */
std::vector<bool> endsWithoutNotice();

#endif
