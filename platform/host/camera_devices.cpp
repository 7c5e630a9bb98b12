/*
 * Plays the camera's two device nodes for a process that preloads this library (LD_PRELOAD).
 *
 *   /mnt/srvfs/event.paas.olv  Opening it connects to the SOCK_SEQPACKET socket at CAMERA_EVENT_SOCKET and returns that
 *                              connection: a write is one packet, a read takes one. ENOENT if nobody listens.
 *   /dev/cache                 Opening it opens the folder CAMERA_CACHE_FOLDER. The map request maps the file in it
 * that is named by the decimal buffer identifier.
 *
 * Every other path, descriptor and request goes to the next library's function as it came.
 *
 * The functions carry names of their own and only their symbols are called open and so on: the headers rename or inline
 * those names, depending on _FILE_OFFSET_BITS and _FORTIFY_SOURCE. They may be called before any constructor ran.
 */
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

namespace {

constexpr char EVENT_NODE[] = "/mnt/srvfs/event.paas.olv";
constexpr char CACHE_NODE[] = "/dev/cache";
constexpr unsigned long MAP_REQUEST = 0x80100701;

/** The argument of the map request, 16 bytes. */
struct MapArgument
{
    std::uint32_t address;    // offset 0, out
    std::uint32_t id;         // offset 4
    std::uint32_t length;     // offset 8
    std::uint32_t attribute;  // offset 12, without meaning here
};
static_assert(sizeof(MapArgument) == 16);

/** The function of that name in the libraries after this one. `cache` keeps it; two threads may both look it up. */
template <typename Function>
Function* nextFunction(std::atomic<Function*>& cache, const char* name)
{
    Function* function = cache.load(std::memory_order_relaxed);
    if (function == nullptr) {
        function = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
        cache.store(function, std::memory_order_relaxed);
    }
    return function;
}

int failure(int cause)
{
    errno = cause;
    return -1;
}

/** A descriptor that is closed on every way out but release(). */
class Descriptor
{
public:
    explicit Descriptor(int number) : m_number(number) {}
    ~Descriptor()
    {
        if (m_number != -1) {
            const int cause = errno;
            close(m_number);
            errno = cause;
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int number() const { return m_number; }
    int release() { return std::exchange(m_number, -1); }

private:
    int m_number;
};

const char* setting(const char* variable, const char* otherwise)
{
    const char* const value = std::getenv(variable);
    return value == nullptr || *value == '\0' ? otherwise : value;
}

int openEventNode(int flags)
{
    const char* const path = setting("CAMERA_EVENT_SOCKET", "/tmp/.camera/event");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (std::strlen(path) >= sizeof address.sun_path) {
        return failure(ENAMETOOLONG);
    }
    std::memcpy(address.sun_path, path, std::strlen(path));
    Descriptor connection(socket(AF_UNIX, SOCK_SEQPACKET | ((flags & O_CLOEXEC) != 0 ? SOCK_CLOEXEC : 0), 0));
    if (connection.number() == -1) {
        return -1;
    }
    int result = 0;
    do {
        result = connect(connection.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (result == -1 && errno == EINTR);
    if (result == -1) {
        return failure(errno == ECONNREFUSED || errno == ENOTDIR ? ENOENT : errno);
    }
    if ((flags & O_NONBLOCK) != 0 && fcntl(connection.number(), F_SETFL, O_NONBLOCK) == -1) {
        return -1;
    }
    return connection.release();
}

using OpenAtFunction = int(int, const char*, int, ...);
std::atomic<OpenAtFunction*> nextOpenAt{nullptr};

int openAt(int folder, const char* path, int flags)
{
    OpenAtFunction* const function = nextFunction(nextOpenAt, "openat64");
    return function == nullptr ? failure(ENOSYS) : function(folder, path, flags);
}

int openCacheNode(int flags)
{
    return openAt(AT_FDCWD, setting("CAMERA_CACHE_FOLDER", "/tmp/.camera/cache"),
                  O_PATH | O_DIRECTORY | (flags & O_CLOEXEC));
}

bool isDeviceNode(const char* path)
{
    return path != nullptr && (std::strcmp(path, EVENT_NODE) == 0 || std::strcmp(path, CACHE_NODE) == 0);
}

int openDeviceNode(const char* path, int flags)
{
    return std::strcmp(path, EVENT_NODE) == 0 ? openEventNode(flags) : openCacheNode(flags);
}

bool takesMode(int flags)
{
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

/**
 * Reserves zeros below 4 GiB, where the 32-bit address word of the request reaches.
 * @return MAP_FAILED with errno set, if there is no room
 */
void* reserveBelow4GiB(std::size_t length)
{
    int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
#ifdef MAP_32BIT
    flags |= MAP_32BIT;
    return mmap(nullptr, length, PROT_READ, flags, -1, 0);
#else
    // Without that flag the kernel takes a free address it is given as a hint: every 16 MiB is tried, from 256 MiB on.
    for (std::uint64_t hint = 0x10000000; hint < 0xF0000000; hint += 0x1000000) {
        void* const start = mmap(reinterpret_cast<void*>(hint), length, PROT_READ, flags, -1, 0);
        if (start == MAP_FAILED || reinterpret_cast<std::uintptr_t>(start) + length - 1 <= UINT32_MAX) {
            return start;
        }
        munmap(start, length);
    }
    errno = ENOMEM;
    return MAP_FAILED;
#endif
}

/** Maps the buffer's file; where it is shorter than the length asked for, zeros follow. */
int mapBuffer(int file, MapArgument& argument)
{
    struct stat status
    {
    };
    if (fstat(file, &status) != 0) {
        return -1;
    }
    const std::size_t length = argument.length;
    void* const start = reserveBelow4GiB(length);
    if (start == MAP_FAILED) {
        return -1;
    }
    const std::size_t inFile =
        static_cast<std::size_t>(std::min<std::uint64_t>(static_cast<std::uint64_t>(status.st_size), length));
    if (inFile > 0 && mmap(start, inFile, PROT_READ, MAP_PRIVATE | MAP_FIXED, file, 0) == MAP_FAILED) {
        const int cause = errno;
        munmap(start, length);
        return failure(cause);
    }
    argument.address = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(start));
    return 0;
}

int mapRequest(int folder, MapArgument* argument)
{
    if (argument == nullptr) {
        return failure(EFAULT);
    }
    if (argument->length == 0) {
        return failure(EINVAL);
    }
    const std::string name = std::to_string(argument->id);
    const Descriptor file(openAt(folder, name.c_str(), O_RDONLY | O_CLOEXEC));
    return file.number() == -1 ? -1 : mapBuffer(file.number(), *argument);
}

/** A folder takes no request of a device driver, so a map request on one is meant for the cache node. */
bool isFolder(int descriptor)
{
    struct stat status
    {
    };
    const int cause = errno;
    const bool folder = fstat(descriptor, &status) == 0 && S_ISDIR(status.st_mode);
    errno = cause;
    return folder;
}

using OpenFunction = int(const char*, int, ...);
using CheckedOpenFunction = int(const char*, int);
using CheckedOpenAtFunction = int(int, const char*, int);
using IoctlFunction = int(int, unsigned long, ...);

template <typename Function, typename... Arguments>
int forward(std::atomic<Function*>& cache, const char* name, Arguments... arguments)
{
    Function* const function = nextFunction(cache, name);
    return function == nullptr ? failure(ENOSYS) : function(arguments...);
}

}  // namespace

extern "C" {

int playedOpen(const char* path, int flags, ...) __asm__("open");
int playedOpen64(const char* path, int flags, ...) __asm__("open64");
int playedOpenAt(int folder, const char* path, int flags, ...) __asm__("openat");
int playedOpenAt64(int folder, const char* path, int flags, ...) __asm__("openat64");
int playedCheckedOpen(const char* path, int flags) __asm__("__open_2");
int playedCheckedOpen64(const char* path, int flags) __asm__("__open64_2");
int playedCheckedOpenAt(int folder, const char* path, int flags) __asm__("__openat_2");
int playedCheckedOpenAt64(int folder, const char* path, int flags) __asm__("__openat64_2");
int playedIoctl(int descriptor, unsigned long request, ...) __asm__("ioctl");

int playedOpen(const char* path, int flags, ...)
{
    static std::atomic<OpenFunction*> next{nullptr};
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = takesMode(flags) ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return isDeviceNode(path) ? openDeviceNode(path, flags) : forward(next, "open", path, flags, mode);
}

int playedOpen64(const char* path, int flags, ...)
{
    static std::atomic<OpenFunction*> next{nullptr};
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = takesMode(flags) ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return isDeviceNode(path) ? openDeviceNode(path, flags) : forward(next, "open64", path, flags, mode);
}

int playedOpenAt(int folder, const char* path, int flags, ...)
{
    static std::atomic<OpenAtFunction*> next{nullptr};
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = takesMode(flags) ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return isDeviceNode(path) ? openDeviceNode(path, flags) : forward(next, "openat", folder, path, flags, mode);
}

int playedOpenAt64(int folder, const char* path, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = takesMode(flags) ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return isDeviceNode(path) ? openDeviceNode(path, flags)
                              : forward(nextOpenAt, "openat64", folder, path, flags, mode);
}

int playedCheckedOpen(const char* path, int flags)
{
    static std::atomic<CheckedOpenFunction*> next{nullptr};
    return isDeviceNode(path) ? openDeviceNode(path, flags) : forward(next, "__open_2", path, flags);
}

int playedCheckedOpen64(const char* path, int flags)
{
    static std::atomic<CheckedOpenFunction*> next{nullptr};
    return isDeviceNode(path) ? openDeviceNode(path, flags) : forward(next, "__open64_2", path, flags);
}

int playedCheckedOpenAt(int folder, const char* path, int flags)
{
    static std::atomic<CheckedOpenAtFunction*> next{nullptr};
    return isDeviceNode(path) ? openDeviceNode(path, flags) : forward(next, "__openat_2", folder, path, flags);
}

int playedCheckedOpenAt64(int folder, const char* path, int flags)
{
    static std::atomic<CheckedOpenAtFunction*> next{nullptr};
    return isDeviceNode(path) ? openDeviceNode(path, flags) : forward(next, "__openat64_2", folder, path, flags);
}

int playedIoctl(int descriptor, unsigned long request, ...)
{
    static std::atomic<IoctlFunction*> next{nullptr};
    va_list rest;
    va_start(rest, request);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    if (request == MAP_REQUEST && isFolder(descriptor)) {
        return mapRequest(descriptor, static_cast<MapArgument*>(argument));
    }
    return forward(next, "ioctl", descriptor, request, argument);
}

}  // extern "C"
