#ifndef TESTS_UNIT_SUPPORT_SYSTEM_CALLS_H
#define TESTS_UNIT_SUPPORT_SYSTEM_CALLS_H

#include <poll.h>
#include <unistd.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

/// Stands between this program and some functions of the system. Without a hook they do what they always do.
///
/// Set hooks before the threads that come through them start; hooks are called on those threads. All are gone at the
/// start of each test. Except where it is said, only calls by this program's own objects and static libraries
/// are seen.
struct SystemCalls
{
    /// Answers an open of a path, or nothing: the system answers.
    std::function<std::optional<int>(const std::string& path, int flags)> open;

    /// Answers an ioctl with its one argument, or nothing: the system answers.
    std::function<std::optional<int>(int descriptor, unsigned long request, void* argument)> ioctl;

    /// Takes the place of usleep.
    std::function<void(useconds_t microseconds)> usleep;

    /// Is told before each poll; milliseconds as poll takes them.
    std::function<void(const pollfd* waited, nfds_t count, int milliseconds)> polling;

    /// Answers a poll, or nothing: the system answers.
    std::function<std::optional<int>(pollfd* waited, nfds_t count, int milliseconds)> poll;

    /// Answers a munmap, or nothing: the system answers.
    std::function<std::optional<int>(void* address, std::size_t length)> munmap;

    /// Is told before each writev, with the number of parts.
    std::function<void(int descriptor, int count)> writing;

    /// Is told before each sendto, also of shared libraries; may throw in its place.
    std::function<void()> sending;

    /// Is asked before each recv, also of shared libraries, whether it shall fail with ENOMEM.
    std::function<bool()> recvFails;

    /// Is called before each poll of the network library's sockets, and may throw. They are in a shared library.
    std::function<void()> socketPoll;

    // Functions that shall fail.
    /// A TLS connection's end that no notice announced is a failed system call without an error number, as in OpenSSL
    /// before 3.0.
    bool tlsEndWithoutNoticeFails = false;
    bool fstatFails = false;
    bool statFails = false;  ///< with ENOMEM
    bool fdopendirFails = false;
    bool memcpyFails = false;       ///< memcpy_s
    bool pollFails = false;         ///< with ENOMEM
    bool sigemptysetFails = false;  ///< after its work
    bool sigactionFails = false;
    bool memsetFails = false;      ///< memset_s
    bool sprintfFails = false;     ///< sprintf_s, with -1
    std::size_t largestArray = 0;  ///< new (std::nothrow) char[] of more bytes fails; 0: no limit
};

SystemCalls& systemCalls();

#endif
