#ifndef TESTS_UNIT_EXCHANGING_H
#define TESTS_UNIT_EXCHANGING_H

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "media_server/IPCService/Public/Interruption.h"
#include "media_server/IPCService/Public/MessageExchange.h"
#include "support/raw_bytes.h"
#include "support/system_calls.h"
#include "support/waiting.h"

constexpr char OWN_PATH[] = "/tmp/CP";
constexpr char ITGT_PATH[] = "/tmp/II";
constexpr char FACES_PATH[] = "/tmp/A";

/// What tells the path from one of the same name that was made anew.
inline std::pair<ino_t, long> identityOfOwnPath()
{
    struct stat status = {};
    EXPECT_EQ(::stat(OWN_PATH, &status), 0);
    return {status.st_ino, status.st_ctim.tv_nsec};
}

inline std::string requestBytes(std::uint32_t command, const std::string& peer = ITGT_PATH)
{
    std::string wire(21408, '\0');
    putText(wire, 0, peer);
    putText(wire, 8, OWN_PATH);
    putNumber(wire, 164, command);
    return wire;
}

inline MSG_DATA request(std::uint32_t command, const std::string& peer = ITGT_PATH)
{
    MSG_DATA message;
    std::memcpy(&message, requestBytes(command, peer).data(), sizeof message);
    return message;
}

inline std::string reply(std::uint32_t command, char fill)
{
    std::string wire(21408, fill);
    putNumber(wire, 164, command);
    return wire;
}

/// Requests of one exchange, made by a thread of its own.
class Exchanging
{
public:
    /// @param commands  asked one after the other
    explicit Exchanging(const std::vector<std::uint32_t>& commands, const std::string& peer = ITGT_PATH)
    {
        m_replies = std::async(std::launch::async, [this, commands, peer] {
            const IPCService::Interruption::Scope scope(m_interruption);
            IPCService::MessageExchange exchange;
            std::vector<std::string> replies;
            for (const std::uint32_t command : commands) {
                MSG_DATA message = request(command, peer);
                exchange.exchange(message);
                replies.push_back(bytesOf(message));
            }
            return replies;
        });
    }
    ~Exchanging() { interrupt(); }
    Exchanging(const Exchanging&) = delete;
    Exchanging& operator=(const Exchanging&) = delete;

    void interrupt() { m_interruption.interrupt(); }
    bool hasEnded(std::chrono::milliseconds deadline = DEADLINE)
    {
        return m_replies.wait_for(deadline) == std::future_status::ready;
    }

    /// What was replied to each request. @throws Interrupted when it was
    std::vector<std::string> replies() { return m_replies.get(); }

private:
    IPCService::Interruption m_interruption;
    std::future<std::vector<std::string>> m_replies;
};

/// Sees which threads stand in line for their turn: those wait for a descriptor that is no socket. To be made before
/// the threads.
class Line
{
public:
    Line()
    {
        systemCalls().polling = [this](const pollfd* waited, nfds_t count, int /*milliseconds*/) {
            int type = 0;
            socklen_t size = sizeof type;
            if (count == 2 && ::getsockopt(waited[0].fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0) {
                const std::lock_guard<std::mutex> lock(m_mutex);
                m_threads.insert(std::this_thread::get_id());
            }
        };
    }
    ~Line() { systemCalls().polling = nullptr; }
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    /// Waits until so many threads have stood in line, now or before.
    bool hasSeen(std::size_t threads)
    {
        return eventually([this, threads] {
            const std::lock_guard<std::mutex> lock(m_mutex);
            return m_threads.size() >= threads;
        });
    }

private:
    std::mutex m_mutex;
    std::set<std::thread::id> m_threads;
};

#endif
