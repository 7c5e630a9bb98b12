#ifndef TESTS_UNIT_SUPPORT_UNIX_SOCKET_H
#define TESTS_UNIT_SUPPORT_UNIX_SOCKET_H

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <system_error>

#include "support/requirement.h"
#include "support/waiting.h"

/// A unix datagram socket as the camera's other processes have one. Its file goes with it.
class UnixSocket
{
public:
    /// @param path  bound if not empty, after removing what was there
    explicit UnixSocket(std::string path = "")
        : m_path(std::move(path)), m_descriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        require(m_descriptor != -1, "there is a free descriptor", std::generic_category().message(errno));
        if (!m_path.empty()) {
            ::unlink(m_path.c_str());
            const sockaddr_un name = address(m_path);
            require(::bind(m_descriptor, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0,
                    "a peer can have its path", m_path + ": " + std::generic_category().message(errno));
        }
    }
    ~UnixSocket()
    {
        ::close(m_descriptor);
        if (!m_path.empty()) {
            ::unlink(m_path.c_str());
        }
    }
    UnixSocket(const UnixSocket&) = delete;
    UnixSocket& operator=(const UnixSocket&) = delete;

    int descriptor() const { return m_descriptor; }

    /// @return true when the whole datagram left
    bool send(const std::string& destination, const std::string& bytes) const
    {
        const sockaddr_un name = address(destination);
        return ::sendto(m_descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL,
                        reinterpret_cast<const sockaddr*>(&name), sizeof name) == static_cast<ssize_t>(bytes.size());
    }

    /// Takes the next datagram, whole. @return nothing when none comes in time
    std::optional<std::string> receive(std::chrono::milliseconds deadline = DEADLINE)
    {
        if (!comesWithin(deadline)) {
            return std::nullopt;
        }
        const ssize_t size = ::recv(m_descriptor, nullptr, 0, MSG_PEEK | MSG_TRUNC);
        std::string bytes(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
        sockaddr_un name = {};
        socklen_t nameSize = sizeof name;
        ::recvfrom(m_descriptor, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&name), &nameSize);
        m_sender = nameSize > sizeof name.sun_family ? name.sun_path : "";
        return bytes;
    }

    /// The path that the datagram taken last was sent from; empty when its socket was not bound.
    const std::string& sender() const { return m_sender; }

    /// Whether a datagram waits to be taken.
    bool hasDatagram() const { return comesWithin(std::chrono::milliseconds(0)); }

private:
    /// With ppoll: the calls of poll are the service's, which tests count and fuzz targets answer.
    bool comesWithin(std::chrono::milliseconds deadline) const
    {
        const std::chrono::nanoseconds parts = deadline % std::chrono::seconds(1);
        const timespec limit = {static_cast<time_t>(deadline / std::chrono::seconds(1)),
                                static_cast<long>(parts.count())};
        pollfd waited{m_descriptor, POLLIN, 0};
        return ::ppoll(&waited, 1, &limit, nullptr) == 1;
    }

    static sockaddr_un address(const std::string& path)
    {
        sockaddr_un name = {};
        name.sun_family = AF_UNIX;
        require(path.size() < sizeof name.sun_path, "a socket path is short", path);
        std::memcpy(name.sun_path, path.data(), path.size());
        return name;
    }

    std::string m_path;
    int m_descriptor;
    std::string m_sender;
};

#endif
