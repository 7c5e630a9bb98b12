#ifndef TESTS_UNIT_SUPPORT_PLAYED_PLATFORM_H
#define TESTS_UNIT_SUPPORT_PLAYED_PLATFORM_H

#include <functional>
#include <string>

/// One connection to the played remote platform, for the script that answers it. A TlsServer carries it over TLS on a
/// thread of its own, a fuzz target over nothing at all.
class PlayedConnection
{
public:
    PlayedConnection() = default;
    virtual ~PlayedConnection() = default;
    PlayedConnection(const PlayedConnection&) = delete;
    PlayedConnection& operator=(const PlayedConnection&) = delete;

    /// @return false when the client has left
    virtual bool send(const std::string& bytes) = 0;

    /// Ends the connection without the notice that it ends.
    virtual void hangUp() = 0;

    /// Ends the connection with a reset instead of an end.
    virtual void reset() = 0;

    /// Holds the connection open, silent, until the client closes it or the server ends.
    virtual void waitUntilClientLeaves() = 0;
};

/// Answers one request of a connection, which is closed with notice when the script returns.
using PlatformScript = std::function<void(PlayedConnection& connection, const std::string& request)>;

/// An answer with the given body and its length.
inline std::string httpAnswer(const std::string& body, const std::string& statusLine = "HTTP/1.1 200 OK")
{
    return statusLine + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

/// A script that sends the same bytes to every request.
inline PlatformScript always(const std::string& bytes)
{
    return [bytes](PlayedConnection& connection, const std::string&) { connection.send(bytes); };
}

#endif
