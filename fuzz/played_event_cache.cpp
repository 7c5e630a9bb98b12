#include "played_event_cache.h"

#include <fcntl.h>
#include <sanitizer/asan_interface.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "oracle.h"
#include "support/raw_bytes.h"

namespace {

constexpr unsigned long MAP_REQUEST = 0x80100701;
constexpr std::size_t LARGEST_BUFFER = 0x20000;  // bytes

// Buffers with these identifiers are not there.
constexpr std::uint32_t WITHOUT_ADDRESS = 0;
constexpr std::uint32_t REFUSED = 0xFFFFFFFF;

#ifdef MAP_32BIT
constexpr int LOW = MAP_32BIT;
#else
constexpr int LOW = 0;
#endif

}  // namespace

PlayedEventCache& PlayedEventCache::instance()
{
    static PlayedEventCache& cache = *new PlayedEventCache;
    return cache;
}

PlayedEventCache::PlayedEventCache() : m_events(), m_driver(::open("/dev/null", O_RDWR | O_CLOEXEC))
{
    require(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, m_events) == 0, "there is an event node");
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    void* const pool =
        ::mmap(nullptr, LARGEST_BUFFER + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | LOW, -1, 0);
    require(pool != MAP_FAILED, "there is memory to map");
    m_pool = static_cast<char*>(pool);
    m_poolEnd = m_pool + LARGEST_BUFFER;
    require(::mprotect(m_poolEnd, page, PROT_NONE) == 0, "a page can be closed");
    ASAN_POISON_MEMORY_REGION(m_pool, LARGEST_BUFFER);
}

void PlayedEventCache::notify(const std::string& notification) const
{
    require(::send(m_events[1], notification.data(), notification.size(), MSG_NOSIGNAL) >= 0,
            "the event node takes a notification");
}

bool PlayedEventCache::ownsMemory(const void* address) const
{
    return address >= m_pool && address <= m_poolEnd;
}

int PlayedEventCache::map(unsigned long request, void* argument)
{
    require(request == MAP_REQUEST, "the driver is asked to map");
    require(!hasMapping(), "the buffer before is unmapped");
    std::string bytes(static_cast<const char*>(argument), 16);
    const auto identifier = numberAt<std::uint32_t>(bytes, 4);
    const auto length = numberAt<std::uint32_t>(bytes, 8);
    require(numberAt<std::uint32_t>(bytes, 0) == 0, "no address is asked for");
    if (identifier == REFUSED || length > LARGEST_BUFFER) {
        errno = ENOMEM;
        return -1;
    }
    if (identifier != WITHOUT_ADDRESS) {
        char* const begin = m_poolEnd - length;
        ASAN_UNPOISON_MEMORY_REGION(begin, length);
        std::memset(begin, 0, length);
        std::memcpy(begin, buffer.data(), std::min<std::size_t>(buffer.size(), length));
        m_mapping = begin;
        m_length = length;
        const auto address = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(begin));
        std::memcpy(argument, &address, sizeof(address));
    }
    return 0;
}

int PlayedEventCache::unmap(const void* address, std::size_t length)
{
    require(address == m_mapping && length == m_length, "what is unmapped was mapped, whole");
    ASAN_POISON_MEMORY_REGION(m_pool, LARGEST_BUFFER);
    m_mapping = nullptr;
    return 0;
}
