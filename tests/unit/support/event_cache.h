#ifndef TESTS_UNIT_SUPPORT_EVENT_CACHE_H
#define TESTS_UNIT_SUPPORT_EVENT_CACHE_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The camera's event cache: a service node that carries packets, and a driver that maps buffers. Builds everything
/// from byte offsets. One buffer is mapped at a time; what lies behind it cannot be read, nor can it be once it is
/// unmapped (with the address sanitizer neither can what lies before it). Any thread.
class EventCache
{
public:
    EventCache();
    ~EventCache();
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

    /// Identifiers of buffers that are not there: mapping succeeds without an address, or fails.
    static constexpr std::uint32_t WITHOUT_ADDRESS = 0;
    static constexpr std::uint32_t REFUSED = 0xFFFFFFFF;

    std::vector<std::pair<std::string, int>> openedNodes() const { return locked(m_opened); }
    /// The 16 bytes of each map request, as they arrived.
    std::vector<std::string> mapRequests() const { return locked(m_mapRequests); }
    /// Whether there is a mapping that has not been unmapped.
    bool hasMapping() const { return locked(m_mapping) != nullptr; }

    /// Sends one packet to the service.
    void notify(const std::string& packet) const;

    /// The next packet from the service.
    std::string packet() const;

    /// Whether a notification waits that the service has not read.
    bool hasUnread() const;

    void closeService() const;

    /// A notification of a buffer, its descriptor right behind its head.
    static std::string notification(std::uint32_t length, std::uint32_t identifier = 0x11223344,
                                    std::uint32_t attribute = 0x55667788);
    static std::string head(std::uint16_t noBuffer, std::uint16_t status, std::uint16_t offset);
    static std::string descriptor(std::uint32_t length, std::uint32_t identifier = 0x11223344,
                                  std::uint32_t attribute = 0x55667788);

    /// A buffer as it is mapped: the header, and what follows it.
    static std::string block(std::uint32_t dataLength, const std::string& data);

    /// Has the driver map what begins with these bytes from now on, for identifiers under which nothing is published.
    /// Up to the length that is asked for the rest is zero. No map request is remembered.
    void setBuffer(const std::string& buffer);

    /// Publishes a record as the camera's analysis does: with its NUL, as new producers do.
    void publish(const std::string& text);

    /// Publishes a buffer under an identifier of its own.
    void publishBlock(const std::string& buffer);

private:
    template <typename Value>
    Value locked(const Value& value) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return value;
    }

    std::optional<int> openNode(const std::string& path, int flags);
    int map(unsigned long request, void* argument);
    std::uint32_t place(std::string buffer, std::size_t length);
    std::optional<int> unmap(const void* address, std::size_t length);

    std::array<int, 2> m_ends{};
    int m_driver = -1;
    mutable std::mutex m_mutex;
    std::vector<std::pair<std::string, int>> m_opened;
    std::vector<std::string> m_mapRequests;
    char* m_pool = nullptr;  ///< below 4 GiB; buffers are mapped at its end, before a page that cannot be read
    char* m_mapping = nullptr;
    std::size_t m_length = 0;  ///< of the mapping
    std::vector<std::string> m_published;
    std::string m_buffer;
};

#endif
