#ifndef FUZZ_PLAYED_PEER_H
#define FUZZ_PLAYED_PEER_H

#include <functional>
#include <optional>
#include <string>

/// A unix datagram socket of one of the camera's other processes, or of a command client. It never waits.
class PlayedPeer
{
public:
    /// @param path  bound, after removing what was there
    explicit PlayedPeer(const char* path);
    PlayedPeer(const PlayedPeer&) = delete;
    PlayedPeer& operator=(const PlayedPeer&) = delete;

    /// Takes the next datagram, whole, if there is one.
    std::optional<std::string> take() const;

    /// Sends one datagram. @return false when nobody takes it
    bool send(const std::string& path, const std::string& datagram) const;

private:
    int m_descriptor;
};

#endif
