#include "support/event_cache.h"

#include <fcntl.h>
#ifdef __clang_analyzer__  // clang-tidy does not find the header where clang's own libraries are not installed
#define ASAN_POISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#define ASAN_UNPOISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#else
#include <sanitizer/asan_interface.h>
#endif
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "support/raw_bytes.h"
#include "support/requirement.h"
#include "support/system_calls.h"

namespace {

constexpr unsigned long MAP_REQUEST = 0x80100701;
constexpr std::size_t LARGEST_BUFFER = 0x80000;  // bytes

// The service takes addresses of 32 bits.
#ifdef MAP_32BIT
constexpr int LOW = MAP_32BIT;
#else
constexpr int LOW = 0;
#endif

}  // namespace

EventCache::EventCache() : m_driver(::open("/dev/null", O_RDWR | O_CLOEXEC))
{
    require(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, m_ends.data()) == 0, "there is an event node");
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    void* const pool = ::mmap(nullptr, LARGEST_BUFFER + page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | LOW, -1, 0);
    require(pool != MAP_FAILED, "there is memory to map");
    m_pool = static_cast<char*>(pool);
    ASAN_POISON_MEMORY_REGION(m_pool, LARGEST_BUFFER);
    systemCalls().open = [this](const std::string& path, int flags) { return openNode(path, flags); };
    systemCalls().ioctl = [this](int descriptor, unsigned long request, void* argument) -> std::optional<int> {
        return descriptor == m_driver ? std::optional<int>(map(request, argument)) : std::nullopt;
    };
    systemCalls().munmap = [this](void* address, std::size_t length) { return unmap(address, length); };
}

EventCache::~EventCache()
{
    systemCalls().open = nullptr;
    systemCalls().ioctl = nullptr;
    systemCalls().munmap = nullptr;
    ASAN_UNPOISON_MEMORY_REGION(m_pool, LARGEST_BUFFER);
    ::munmap(m_pool, LARGEST_BUFFER + static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)));
    ::close(m_ends[0]);
    ::close(m_ends[1]);
    ::close(m_driver);
}

void EventCache::notify(const std::string& packet) const
{
    require(::send(m_ends[1], packet.data(), packet.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(packet.size()),
            "the event node takes a notification");
}

std::string EventCache::packet() const
{
    std::string bytes(1000, '\0');
    const ssize_t size = ::recv(m_ends[1], bytes.data(), bytes.size(), 0);
    bytes.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return bytes;
}

bool EventCache::hasUnread() const
{
    return ::recv(m_ends[0], nullptr, 0, MSG_PEEK | MSG_DONTWAIT) != -1;
}

void EventCache::closeService() const
{
    ::shutdown(m_ends[1], SHUT_RDWR);
}

std::string EventCache::notification(std::uint32_t length, std::uint32_t identifier, std::uint32_t attribute)
{
    return head(0, 200, 10) + descriptor(length, identifier, attribute);
}

std::string EventCache::head(std::uint16_t noBuffer, std::uint16_t status, std::uint16_t offset)
{
    std::string bytes(10, '\x7E');
    putNumber(bytes, 4, noBuffer);
    putNumber(bytes, 6, status);
    putNumber(bytes, 8, offset);
    return bytes;
}

std::string EventCache::descriptor(std::uint32_t length, std::uint32_t identifier, std::uint32_t attribute)
{
    std::string bytes(16, '\x7E');
    putNumber(bytes, 0, identifier);
    putNumber(bytes, 8, length);
    putNumber(bytes, 12, attribute);
    return bytes;
}

std::string EventCache::block(std::uint32_t dataLength, const std::string& data)
{
    std::string bytes(56, '\x7E');
    putNumber(bytes, 52, dataLength);
    return bytes + data;
}

void EventCache::setBuffer(const std::string& buffer)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_buffer = buffer;
    m_mapRequests.clear();
}

void EventCache::publish(const std::string& text)
{
    publishBlock(block(static_cast<std::uint32_t>(text.size() + 1), text + '\0'));
}

void EventCache::publishBlock(const std::string& buffer)
{
    std::uint32_t identifier = 0;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_published.push_back(buffer);
        identifier = static_cast<std::uint32_t>(m_published.size());
    }
    notify(notification(static_cast<std::uint32_t>(buffer.size()), identifier));
}

std::optional<int> EventCache::openNode(const std::string& path, int flags)
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

int EventCache::map(unsigned long request, void* argument)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::string bytes(static_cast<const char*>(argument), 16);
    m_mapRequests.push_back(bytes);
    require(request == MAP_REQUEST, "the driver is asked to map");
    require(m_mapping == nullptr, "the buffer before is unmapped");
    require(numberAt<std::uint32_t>(bytes, 0) == 0, "no address is asked for");
    const auto identifier = numberAt<std::uint32_t>(bytes, 4);
    const auto length = numberAt<std::uint32_t>(bytes, 8);
    if (mapError != 0 || identifier == REFUSED || length > LARGEST_BUFFER) {
        errno = mapError != 0 ? mapError.load() : ENOMEM;
        return -1;
    }
    if (identifier != WITHOUT_ADDRESS) {
        const bool known = identifier - 1 < m_published.size();
        const std::uint32_t address = place(known ? m_published[identifier - 1] : m_buffer, length);
        std::memcpy(argument, &address, sizeof address);
    }
    return 0;
}

/// Maps a buffer so that its last byte lies before a page that cannot be read.
std::uint32_t EventCache::place(std::string buffer, std::size_t length)
{
    buffer.resize(length);
    require(::mprotect(m_pool, LARGEST_BUFFER, PROT_READ | PROT_WRITE) == 0, "memory can be opened");
    m_mapping = m_pool + LARGEST_BUFFER - length;
    m_length = length;
    ASAN_UNPOISON_MEMORY_REGION(m_mapping, length);
    std::memcpy(m_mapping, buffer.data(), length);
    return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(m_mapping));
}

/// Closes what the driver mapped: whoever reads on, crashes.
std::optional<int> EventCache::unmap(const void* address, std::size_t length)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (address < m_pool || address > m_pool + LARGEST_BUFFER) {
        return std::nullopt;
    }
    require(address == m_mapping && length == m_length, "what is unmapped was mapped, whole");
    m_mapping = nullptr;
    ASAN_POISON_MEMORY_REGION(m_pool, LARGEST_BUFFER);
    return ::mprotect(m_pool, LARGEST_BUFFER, PROT_NONE);
}
