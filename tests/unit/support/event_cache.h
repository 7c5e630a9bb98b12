#ifndef TESTS_UNIT_SUPPORT_EVENT_CACHE_H
#define TESTS_UNIT_SUPPORT_EVENT_CACHE_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/raw_bytes.h"
#include "support/system_calls.h"

/// The camera's event cache: a service node that carries packets, and a driver that maps buffers. Builds everything
/// from byte offsets.
class EventCache
{
public:
    EventCache()
    {
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, m_ends.data()), 0);
        m_driver = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        systemCalls().open = [this](const std::string& path, int flags) { return openNode(path, flags); };
        systemCalls().ioctl = [this](int descriptor, unsigned long request, void* argument) -> std::optional<int> {
            return descriptor == m_driver ? std::optional<int>(map(request, argument)) : std::nullopt;
        };
        systemCalls().munmap = [this](void* address, std::size_t length) { return unmap(address, length); };
    }
    ~EventCache()
    {
        systemCalls().open = nullptr;
        systemCalls().ioctl = nullptr;
        systemCalls().munmap = nullptr;
        ::close(m_ends[0]);
        ::close(m_ends[1]);
        ::close(m_driver);
    }
    EventCache(const EventCache&) = delete;
    EventCache& operator=(const EventCache&) = delete;

    /// The service's ends: what opening the nodes gives.
    int eventDescriptor() const { return m_ends[0]; }
    int cacheDescriptor() const { return m_driver; }

    /// What opening the nodes gives instead.
    std::optional<int> eventAnswer;
    std::optional<int> cacheAnswer;

    /// Error number that mapping fails with; 0: it works.
    std::atomic<int> mapError{0};
    /// Whether a mapping succeeds without an address.
    std::atomic<bool> mapsNothing{false};

    std::vector<std::pair<std::string, int>> openedNodes() const { return locked(m_opened); }
    /// The 16 bytes of each map request, as they arrived.
    std::vector<std::string> mapRequests() const { return locked(m_mapRequests); }
    /// How many of the mappings made are still there.
    std::size_t mappings() const { return locked(m_mappings).size(); }

    /// Sends one packet to the service.
    void notify(const std::string& packet) const
    {
        EXPECT_EQ(::send(m_ends[1], packet.data(), packet.size(), MSG_NOSIGNAL), static_cast<ssize_t>(packet.size()));
    }

    /// The next packet from the service.
    std::string packet() const
    {
        std::string bytes(1000, '\0');
        const ssize_t size = ::recv(m_ends[1], bytes.data(), bytes.size(), 0);
        bytes.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        return bytes;
    }

    /// Whether a notification waits that the service has not read.
    bool hasUnread() const { return ::recv(m_ends[0], nullptr, 0, MSG_PEEK | MSG_DONTWAIT) != -1; }

    void closeService() { ::shutdown(m_ends[1], SHUT_RDWR); }

    /// A notification of a buffer, its descriptor right behind its head.
    static std::string notification(std::uint32_t length, std::uint32_t identifier = 0x11223344,
                                    std::uint32_t attribute = 0x55667788)
    {
        return head(0, 200, 10) + descriptor(length, identifier, attribute);
    }

    static std::string head(std::uint16_t noBuffer, std::uint16_t status, std::uint16_t offset)
    {
        std::string bytes(10, '\x7E');
        putNumber(bytes, 4, noBuffer);
        putNumber(bytes, 6, status);
        putNumber(bytes, 8, offset);
        return bytes;
    }

    static std::string descriptor(std::uint32_t length, std::uint32_t identifier = 0x11223344,
                                  std::uint32_t attribute = 0x55667788)
    {
        std::string bytes(16, '\x7E');
        putNumber(bytes, 0, identifier);
        putNumber(bytes, 8, length);
        putNumber(bytes, 12, attribute);
        return bytes;
    }

    /// A buffer as it is mapped: the header, and what follows it.
    static std::string block(std::uint32_t dataLength, const std::string& data)
    {
        std::string bytes(56, '\x7E');
        putNumber(bytes, 52, dataLength);
        return bytes + data;
    }

    /// Has the driver map this buffer from now on. It ends where readable memory ends.
    void setBuffer(const std::string& buffer)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_buffer = buffer;
    }

    /// Publishes a record as the camera's analysis does: with its NUL, as new producers do.
    void publish(const std::string& text)
    {
        publishBlock(block(static_cast<std::uint32_t>(text.size() + 1), text + '\0'));
    }

    /// Publishes a buffer under an identifier of its own.
    void publishBlock(const std::string& buffer)
    {
        std::uint32_t identifier = 0;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_published.push_back(buffer);
            identifier = static_cast<std::uint32_t>(m_published.size());
        }
        notify(notification(static_cast<std::uint32_t>(buffer.size()), identifier));
    }

private:
    struct Mapping
    {
        char* pages;
        std::size_t size;
        char* begin;  ///< of the buffer
        std::size_t length;
    };

    template <typename Value>
    Value locked(const Value& value) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return value;
    }

    std::optional<int> openNode(const std::string& path, int flags)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (path == "/mnt/srvfs/event.paas.olv") {
            m_opened.emplace_back(path, flags);
            return eventAnswer ? *eventAnswer : ::dup(m_ends[0]);
        }
        if (path == "/dev/cache") {
            m_opened.emplace_back(path, flags);
            return cacheAnswer ? *cacheAnswer : m_driver;
        }
        return std::nullopt;
    }

    int map(unsigned long request, void* argument)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const std::string bytes(static_cast<const char*>(argument), 16);
        m_mapRequests.push_back(bytes);
        EXPECT_EQ(request, 0x80100701UL);
        if (mapError != 0) {
            errno = mapError;
            return -1;
        }
        const auto identifier = numberAt<std::uint32_t>(bytes, 4);
        const bool known = identifier - 1 < m_published.size();
        const std::uint32_t address = mapsNothing ? 0 : mapPages(known ? m_published[identifier - 1] : m_buffer);
        std::memcpy(argument, &address, sizeof address);
        return 0;
    }

    /// Maps a buffer below 4 GiB so that its last byte lies before a page that cannot be read.
    std::uint32_t mapPages(const std::string& buffer)
    {
#ifdef MAP_32BIT
        constexpr int LOW = MAP_32BIT;
#else
        constexpr int LOW = 0;
#endif
        const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
        const std::size_t room = (buffer.size() + page - 1) / page * page;
        void* const pages =
            ::mmap(nullptr, room + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | LOW, -1, 0);
        EXPECT_NE(pages, MAP_FAILED);
        char* const begin = static_cast<char*>(pages) + room - buffer.size();
        std::memcpy(begin, buffer.data(), buffer.size());
        EXPECT_EQ(::mprotect(static_cast<char*>(pages) + room, page, PROT_NONE), 0);
        m_mappings.push_back({static_cast<char*>(pages), room + page, begin, buffer.size()});
        return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(begin));
    }

    /// Unmaps what the driver mapped, all pages of it.
    std::optional<int> unmap(void* address, std::size_t length)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (std::size_t i = 0; i < m_mappings.size(); ++i) {
            const Mapping mapping = m_mappings[i];
            if (mapping.begin == address) {
                EXPECT_EQ(length, mapping.length) << "the length of the mapping";
                m_mappings.erase(m_mappings.begin() + static_cast<std::ptrdiff_t>(i));
                return ::mprotect(mapping.pages, mapping.size, PROT_NONE);  // whoever reads on, crashes
            }
        }
        return std::nullopt;
    }

    std::array<int, 2> m_ends{};
    int m_driver = -1;
    mutable std::mutex m_mutex;
    std::vector<std::pair<std::string, int>> m_opened;
    std::vector<std::string> m_mapRequests;
    std::vector<Mapping> m_mappings;
    std::vector<std::string> m_published;
    std::string m_buffer;
};

#endif
