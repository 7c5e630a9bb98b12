#ifndef FUZZ_PLAYED_EVENT_CACHE_H
#define FUZZ_PLAYED_EVENT_CACHE_H

#include <cstddef>
#include <cstdint>
#include <string>

/// The camera's event cache: an event node that carries notifications and a driver that maps buffers. One buffer is
/// mapped at a time. What lies before it and behind it cannot be read, nor can it be when it is unmapped.
class PlayedEventCache
{
public:
    static PlayedEventCache& instance();

    int eventDescriptor() const { return m_events[0]; }
    int cacheDescriptor() const { return m_driver; }

    /// Sends a notification.
    void notify(const std::string& notification) const;

    /// What the next buffer begins with; the rest of it, up to the length that is asked for, is zero.
    std::string buffer;

    bool hasMapping() const { return m_mapping != nullptr; }

    // For the linked functions: calls of ioctl and munmap.
    bool ownsDriver(int descriptor) const { return descriptor == m_driver; }
    bool ownsMemory(const void* address) const;
    int map(unsigned long request, void* argument);
    int unmap(const void* address, std::size_t length);

private:
    PlayedEventCache();

    int m_events[2];
    int m_driver;
    char* m_pool;     ///< below 4 GiB; the last page cannot be read
    char* m_poolEnd;  ///< where that page begins
    const char* m_mapping = nullptr;
    std::size_t m_length = 0;  ///< of the mapping
};

#endif
