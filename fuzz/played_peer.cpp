#include "played_peer.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "oracle.h"

namespace {

sockaddr_un addressOf(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    require(path.size() < sizeof(address.sun_path), "a socket path is short", path);
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

}  // namespace

PlayedPeer::PlayedPeer(const char* path) : m_descriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
{
    ::unlink(path);
    const sockaddr_un address = addressOf(path);
    require(::bind(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0,
            "a peer can have its path", path);
}

std::optional<std::string> PlayedPeer::take() const
{
    const ssize_t size = ::recv(m_descriptor, nullptr, 0, MSG_PEEK | MSG_TRUNC);
    if (size < 0) {
        return std::nullopt;
    }
    std::string datagram(static_cast<std::size_t>(size), '\0');
    require(::recv(m_descriptor, datagram.data(), datagram.size(), 0) == size, "a datagram comes whole");
    return datagram;
}

bool PlayedPeer::send(const std::string& path, const std::string& datagram) const
{
    const sockaddr_un address = addressOf(path);
    return ::sendto(m_descriptor, datagram.data(), datagram.size(), MSG_NOSIGNAL,
                    reinterpret_cast<const sockaddr*>(&address),
                    sizeof(address)) == static_cast<ssize_t>(datagram.size());
}
