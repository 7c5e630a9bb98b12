#include "support/system_calls.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <features.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstdarg>
#include <new>

#include "bounds_checked.h"

// The linker leads each call of NAME to __wrap_NAME and each of __real_NAME to the system's NAME (option --wrap).

SystemCalls& systemCalls()
{
    static SystemCalls& instance = *new SystemCalls;
    return instance;
}

namespace {

/// The mode that an open has when it creates a file.
mode_t modeOf(int flags, va_list arguments)
{
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? static_cast<mode_t>(va_arg(arguments, unsigned int)) : 0;
}

/// A hook's answer; nothing when there is none.
template <typename... Parameters, typename... Arguments>
std::optional<int> answerOf(const Hook<std::optional<int>(Parameters...)>& hook, Arguments... arguments)
{
    const auto function = hook.get();
    return function ? (*function)(arguments...) : std::nullopt;
}

/// Tells a hook, if there is one.
template <typename... Parameters, typename... Arguments>
void tell(const Hook<void(Parameters...)>& hook, Arguments... arguments)
{
    if (const auto function = hook.get()) {
        (*function)(arguments...);
    }
}

int failed(int error)
{
    errno = error;
    return -1;
}

}  // namespace

extern "C" {

int __real_open(const char* path, int flags, ...);
int __real_open64(const char* path, int flags, ...);
int __real_ioctl(int descriptor, unsigned long request, ...);
int __real_usleep(useconds_t microseconds);
int __real_poll(pollfd* waited, nfds_t count, int milliseconds);
int __real_munmap(void* address, std::size_t length);
ssize_t __real_writev(int descriptor, const iovec* parts, int count);
int __real_sigemptyset(sigset_t* signals);
int __real_sigaction(int signal, const struct sigaction* action, struct sigaction* before);
DIR* __real_fdopendir(int descriptor);
errno_t __real__memcpy_s_chk(void* target, rsize_t size, const void* source, rsize_t count, std::size_t known,
                             std::size_t knownSource);
errno_t __real__memset_s_chk(void* target, rsize_t size, int value, rsize_t count, std::size_t known);

int __wrap_open(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    const std::optional<int> answer = answerOf(systemCalls().open, path, flags);
    return answer ? *answer : __real_open(path, flags, mode);
}

int __wrap_open64(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    const std::optional<int> answer = answerOf(systemCalls().open, path, flags);
    return answer ? *answer : __real_open64(path, flags, mode);
}

int __wrap_ioctl(int descriptor, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    const std::optional<int> answer = answerOf(systemCalls().ioctl, descriptor, request, argument);
    return answer ? *answer : __real_ioctl(descriptor, request, argument);
}

int __wrap_usleep(useconds_t microseconds)
{
    const auto hook = systemCalls().usleep.get();
    if (!hook) {
        return __real_usleep(microseconds);
    }
    (*hook)(microseconds);
    return 0;
}

int __wrap_poll(pollfd* waited, nfds_t count, int milliseconds)
{
    tell(systemCalls().polling, waited, count, milliseconds);
    if (const std::optional<int> answer = answerOf(systemCalls().poll, waited, count, milliseconds)) {
        return *answer;
    }
    return systemCalls().pollFails ? failed(ENOMEM) : __real_poll(waited, count, milliseconds);
}

// What a build with _FORTIFY_SOURCE calls where it does not see how large the array is.
int __wrap___poll_chk(pollfd* waited, nfds_t count, int milliseconds, std::size_t /*size*/)
{
    return __wrap_poll(waited, count, milliseconds);
}

int __wrap_munmap(void* address, std::size_t length)
{
    const std::optional<int> answer = answerOf(systemCalls().munmap, address, length);
    return answer ? *answer : __real_munmap(address, length);
}

ssize_t __wrap_writev(int descriptor, const iovec* parts, int count)
{
    tell(systemCalls().writing, descriptor, count);
    return __real_writev(descriptor, parts, count);
}

int __wrap_sigemptyset(sigset_t* signals)
{
    const int result = __real_sigemptyset(signals);
    return systemCalls().sigemptysetFails ? failed(EINVAL) : result;
}

int __wrap_sigaction(int signal, const struct sigaction* action, struct sigaction* before)
{
    return systemCalls().sigactionFails ? failed(EINVAL) : __real_sigaction(signal, action, before);
}

errno_t __wrap__memset_s_chk(void* target, rsize_t size, int value, rsize_t count, std::size_t known)
{
    return systemCalls().memsetFails ? EINVAL : __real__memset_s_chk(target, size, value, count, known);
}

errno_t __wrap__memcpy_s_chk(void* target, rsize_t size, const void* source, rsize_t count, std::size_t known,
                             std::size_t knownSource)
{
    return systemCalls().memcpyFails ? EINVAL : __real__memcpy_s_chk(target, size, source, count, known, knownSource);
}

DIR* __wrap_fdopendir(int descriptor)
{
    if (systemCalls().fdopendirFails) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_fdopendir(descriptor);
}

int __wrap__sprintf_s_chk(char* target, rsize_t size, std::size_t known, const char* format, ...)
{
    if (systemCalls().sprintfFails) {
        return -1;
    }
    va_list arguments;
    va_start(arguments, format);
    const int result = _vsprintf_s_chk(target, size, known, format, arguments);
    va_end(arguments);
    return result;
}

// The file status has had other names inside the C library.
#if __GLIBC_PREREQ(2, 33)
int __real_fstat64(int descriptor, struct stat64* status);
int __wrap_fstat64(int descriptor, struct stat64* status)
{
    return systemCalls().fstatFails ? failed(EIO) : __real_fstat64(descriptor, status);
}
int __real_fstat(int descriptor, struct stat* status);
int __wrap_fstat(int descriptor, struct stat* status)
{
    return systemCalls().fstatFails ? failed(EIO) : __real_fstat(descriptor, status);
}
int __real_stat64(const char* path, struct stat64* status);
int __wrap_stat64(const char* path, struct stat64* status)
{
    return systemCalls().statFails ? failed(ENOMEM) : __real_stat64(path, status);
}
int __real_stat(const char* path, struct stat* status);
int __wrap_stat(const char* path, struct stat* status)
{
    return systemCalls().statFails ? failed(ENOMEM) : __real_stat(path, status);
}
#else
int __real___fxstat64(int version, int descriptor, struct stat64* status);
int __wrap___fxstat64(int version, int descriptor, struct stat64* status)
{
    return systemCalls().fstatFails ? failed(EIO) : __real___fxstat64(version, descriptor, status);
}
int __real___xstat64(int version, const char* path, struct stat64* status);
int __wrap___xstat64(int version, const char* path, struct stat64* status)
{
    return systemCalls().statFails ? failed(ENOMEM) : __real___xstat64(version, path, status);
}
#endif

/// Comes before the C library's for shared libraries, too.
ssize_t sendto(int descriptor, const void* data, std::size_t length, int flags, const sockaddr* address, socklen_t size)
{
    tell(systemCalls().sending);
    static const auto next = reinterpret_cast<decltype(&::sendto)>(::dlsym(RTLD_NEXT, "sendto"));
    return next(descriptor, data, length, flags, address, size);
}

/// Comes before the C library's for shared libraries, too. Under a name of its own here: a build with _FORTIFY_SOURCE
/// has a function "recv" in the headers already.
ssize_t recvForAll(int descriptor, void* buffer, std::size_t length, int flags) __asm__("recv");
ssize_t recvForAll(int descriptor, void* buffer, std::size_t length, int flags)
{
    const auto fails = systemCalls().recvFails.get();
    if (fails && (*fails)()) {
        return failed(ENOMEM);
    }
    static const auto next = reinterpret_cast<decltype(&recvForAll)>(::dlsym(RTLD_NEXT, "recv"));
    return next(descriptor, buffer, length, flags);
}

/// Comes before the C library's for shared libraries, too: the network library's sockets wait here.
int epoll_wait(int descriptor, epoll_event* events, int count, int milliseconds)
{
    tell(systemCalls().socketPoll);
    static const auto next = reinterpret_cast<decltype(&::epoll_wait)>(::dlsym(RTLD_NEXT, "epoll_wait"));
    return next(descriptor, events, count, milliseconds);
}

/// Comes before the TLS library's for shared libraries, too.
int SSL_get_error(const SSL* connection, int result)
{
    static const auto next = reinterpret_cast<decltype(&::SSL_get_error)>(::dlsym(RTLD_NEXT, "SSL_get_error"));
    const int error = next(connection, result);
    if (error == SSL_ERROR_SSL && systemCalls().tlsEndWithoutNoticeFails) {
        ERR_clear_error();
        errno = 0;
        return SSL_ERROR_SYSCALL;
    }
    return error;
}

}  // extern "C"

/// What the standard library's does, below the limit.
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept
{
    const std::size_t limit = systemCalls().largestArray;
    if (limit != 0 && size > limit) {
        return nullptr;
    }
    try {
        return ::operator new[](size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
