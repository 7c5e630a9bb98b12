#ifndef TESTS_UNIT_SUPPORT_SCRIPTED_PEER_H
#define TESTS_UNIT_SUPPORT_SCRIPTED_PEER_H

#include <sys/socket.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/exchange_messages.h"
#include "support/unix_socket.h"
#include "support/waiting.h"

/** Another process of the camera: answers each message as its script says, on a thread of its own, and keeps what it
    received. */
class ScriptedPeer
{
public:
    /** @return the reply; nothing is sent when it is empty */
    using Script = std::function<std::string(const std::string& request)>;

    ScriptedPeer(const std::string& path, Script script)
        : m_socket(path), m_script(std::move(script)), m_thread([this] { serve(); })
    {
    }
    ~ScriptedPeer()
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_ending = true;
        }
        // Ends the thread's wait for a message.
        shutdown(m_socket.descriptor(), SHUT_RDWR);
        m_thread.join();
    }
    ScriptedPeer(const ScriptedPeer&) = delete;
    ScriptedPeer& operator=(const ScriptedPeer&) = delete;

    /** Everything received until now. */
    std::vector<std::string> requests() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_requests;
    }

    /** What was received with that command, in order. */
    std::vector<std::string> requests(std::uint32_t command) const
    {
        std::vector<std::string> result;
        for (const std::string& request : requests()) {
            if (commandOf(request) == command) {
                result.push_back(request);
            }
        }
        return result;
    }

    /** Waits until so many messages were received. @return false when they do not come in time */
    bool waitFor(std::size_t count) const
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_until(lock, std::chrono::system_clock::now() + DEADLINE,
                                    [&] { return m_requests.size() >= count; });
    }

private:
    bool ending() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_ending;
    }

    void serve()
    {
        while (!ending()) {
            const std::optional<std::string> request = m_socket.receive();
            if (ending()) {
                return;
            }
            if (request) {
                answer(*request);
            }
        }
    }

    void answer(const std::string& request)
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_requests.push_back(request);
        }
        m_changed.notify_all();
        const std::string reply = m_script(request);
        if (!reply.empty()) {
            m_socket.send(m_socket.sender(), reply);
        }
    }

    UnixSocket m_socket;
    const Script m_script;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    bool m_ending = false;               /**< guarded by m_mutex */
    std::vector<std::string> m_requests; /**< guarded by m_mutex */
    std::thread m_thread;
};

#endif
