/// What the linker puts in the place of functions that the service calls: __wrap_NAME is called instead of NAME, and
/// __real_NAME is NAME (option --wrap, see CMakeLists.txt). And the camera's platform, which only this program has.
#include <dlfcn.h>
#include <netdb.h>
#include <poll.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "oracle.h"
#include "played_event_cache.h"
#include "ql_log.h"
#include "ql_process.h"
#include "srvfs_client.h"
#include "surroundings.h"

extern "C" {

int __wrap_poll(pollfd* waited, nfds_t count, int milliseconds)
{
    return Surroundings::instance().wait(waited, count, milliseconds);
}

// What a build with _FORTIFY_SOURCE calls where it does not see how large the array is.
int __wrap___poll_chk(pollfd* waited, nfds_t count, int milliseconds, std::size_t /*size*/)
{
    return __wrap_poll(waited, count, milliseconds);
}

int __wrap_usleep(useconds_t /*microseconds*/)
{
    return 0;
}

int __real_ioctl(int descriptor, unsigned long request, ...);
int __wrap_ioctl(int descriptor, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    PlayedEventCache& cache = PlayedEventCache::instance();
    return cache.ownsDriver(descriptor) ? cache.map(request, argument) : __real_ioctl(descriptor, request, argument);
}

int __real_munmap(void* address, size_t length);
int __wrap_munmap(void* address, size_t length)
{
    PlayedEventCache& cache = PlayedEventCache::instance();
    return cache.ownsMemory(address) ? cache.unmap(address, length) : __real_munmap(address, length);
}

/// Looks nothing up: a name has the loopback address. Comes before the C library's for shared libraries, too.
int getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result)
{
    using Function = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
    static const auto next = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "getaddrinfo"));
    addrinfo numeric = hints != nullptr ? *hints : addrinfo{};
    numeric.ai_flags = (numeric.ai_flags & ~AI_ADDRCONFIG) | AI_NUMERICHOST;
    const int failure = next(node, service, &numeric, result);
    return failure != 0 && node != nullptr && *node != '\0' ? next("127.0.0.1", service, &numeric, result) : failure;
}

void QL_WriteLog(int /*module*/, int /*level*/, int /*debugFlag*/, int /*reserved*/, const char* /*sourcePath*/,
                 int /*sourceLine*/, const char* format, ...)
{
    // Written as on the camera, so that an argument that is no text shows.
    static std::vector<char> text(1 << 17);
    va_list arguments;
    va_start(arguments, format);
    require(std::vsnprintf(text.data(), text.size(), format, arguments) >= 0, "a log line can be written", format);
    va_end(arguments);
}

int QL_ChangeProcUser(const char* /*user*/)
{
    return 0;
}

void* srvfs_calloc(size_t count, size_t size)
{
    return std::calloc(count, size);
}

int client_open(void* /*handle*/, const char* /*name*/, unsigned int /*size*/)
{
    return 0;
}

int client_msgsend(void* /*handle*/, const void* data, unsigned int length, int flag)
{
    const std::string record(static_cast<const char*>(data), length);
    require(flag == 1, "a record is an ordinary one");
    require(record.find('\0') == record.size() - 1, "a record has one NUL, at its end", record);
    require(isJson(record.substr(0, record.size() - 1)), "a record is JSON", record);
    return 0;
}

}  // extern "C"
