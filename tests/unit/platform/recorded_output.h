#ifndef TESTS_UNIT_PLATFORM_RECORDED_OUTPUT_H
#define TESTS_UNIT_PLATFORM_RECORDED_OUTPUT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <string>

/** Standard error on another descriptor while this lives. */
class StandardError
{
public:
    explicit StandardError(int target) : m_saved(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0))
    {
        EXPECT_NE(dup2(target, STDERR_FILENO), -1);
    }
    ~StandardError()
    {
        dup2(m_saved, STDERR_FILENO);
        close(m_saved);
    }
    StandardError(const StandardError&) = delete;
    StandardError& operator=(const StandardError&) = delete;

private:
    int m_saved;
};

class Pipe
{
public:
    Pipe() { EXPECT_EQ(pipe2(m_ends.data(), O_CLOEXEC), 0); }
    ~Pipe()
    {
        closeReader();
        closeWriter();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int reader() const { return m_ends[0]; }
    int writer() const { return m_ends[1]; }
    void closeReader() { closeEnd(m_ends[0]); }
    void closeWriter() { closeEnd(m_ends[1]); }

    /** Everything up to the end, which comes when the last writer closes. */
    std::string drain() const
    {
        std::string text;
        std::array<char, 65536> buffer{};
        for (ssize_t length = 0; (length = read(reader(), buffer.data(), buffer.size())) > 0;) {
            text.append(buffer.data(), static_cast<std::size_t>(length));
        }
        return text;
    }

private:
    static void closeEnd(int& descriptor)
    {
        if (descriptor != -1) {
            close(descriptor);
        }
        descriptor = -1;
    }

    std::array<int, 2> m_ends{-1, -1};
};

/** Standard error as a socket of packets: what comes out as one packet was written with one write. */
class RecordedWrites
{
public:
    RecordedWrites()
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, m_ends.data()), 0);
        const int size = 4 * 1024 * 1024;
        setsockopt(m_ends[1], SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    }
    ~RecordedWrites()
    {
        close(m_ends[0]);
        close(m_ends[1]);
    }
    RecordedWrites(const RecordedWrites&) = delete;
    RecordedWrites& operator=(const RecordedWrites&) = delete;

    int target() const { return m_ends[1]; }

    /** The next write; empty if there was none. */
    std::string next() const
    {
        std::string packet(1024 * 1024, '\0');
        const ssize_t length = recv(m_ends[0], packet.data(), packet.size(), MSG_DONTWAIT);
        packet.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
        return packet;
    }

private:
    std::array<int, 2> m_ends{};
};

#endif
