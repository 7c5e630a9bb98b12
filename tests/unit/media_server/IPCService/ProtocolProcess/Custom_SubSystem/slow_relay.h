#ifndef TESTS_UNIT_CUSTOM_SUBSYSTEM_SLOW_RELAY_H
#define TESTS_UNIT_CUSTOM_SUBSYSTEM_SLOW_RELAY_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <thread>
#include <vector>

/** Stands between one client and a server on the loopback. What the server sends once it is slow comes in three pieces,
    two seconds apart and more. */
class SlowRelay
{
public:
    SlowRelay(std::uint16_t serverPort, const std::atomic<bool>& slow)
        : m_listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), m_slow(slow)
    {
        sockaddr_in address = loopback(0);
        EXPECT_EQ(::bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(::listen(m_listener, 1), 0);
        socklen_t size = sizeof address;
        EXPECT_EQ(::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size), 0);
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this, serverPort] { serve(serverPort); });
    }
    ~SlowRelay()
    {
        ::shutdown(m_listener, SHUT_RDWR);
        m_ends = true;
        m_thread.join();
        ::close(m_listener);
    }
    SlowRelay(const SlowRelay&) = delete;
    SlowRelay& operator=(const SlowRelay&) = delete;

    std::uint16_t port() const { return m_port; }

private:
    static constexpr std::chrono::milliseconds PAUSE{2900};
    static constexpr std::size_t PIECES = 3;

    static sockaddr_in loopback(std::uint16_t port)
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

    void serve(std::uint16_t serverPort)
    {
        const int client = ::accept(m_listener, nullptr, nullptr);
        const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in address = loopback(serverPort);
        EXPECT_EQ(::connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        while (!m_ends && carry(client, server, false) && carry(server, client, true)) {
        }
        ::close(client);
        ::close(server);
    }

    /** @return false when the sender has left */
    bool carry(int source, int target, bool mayBeSlow) const
    {
        pollfd waited{source, POLLIN, 0};
        if (::poll(&waited, 1, 10) != 1) {
            return true;
        }
        std::vector<char> bytes(20000);
        const ssize_t size = ::recv(source, bytes.data(), bytes.size(), 0);
        if (size <= 0) {
            return false;
        }
        const std::size_t pieces = mayBeSlow && m_slow ? PIECES : 1;
        const std::size_t piece = static_cast<std::size_t>(size) / pieces + 1;
        for (std::size_t sent = 0; sent < static_cast<std::size_t>(size) && !m_ends; sent += piece) {
            if (sent > 0) {
                std::this_thread::sleep_for(PAUSE);  // pause: what makes it slow
            }
            ::send(target, bytes.data() + sent, std::min(piece, static_cast<std::size_t>(size) - sent), MSG_NOSIGNAL);
        }
        return true;
    }

    int m_listener;
    const std::atomic<bool>& m_slow;
    std::uint16_t m_port = 0;
    std::atomic<bool> m_ends{false};
    std::thread m_thread;
};

#endif
