#ifndef TESTS_UNIT_SUPPORT_SYSTEM_CALLS_H
#define TESTS_UNIT_SUPPORT_SYSTEM_CALLS_H

#include <poll.h>
#include <unistd.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

/// What is called in the place of a function, or nothing. It may be set while other threads come through it: who is in
/// the one from before stays there.
template <typename Signature>
class Hook
{
public:
    using Function = std::function<Signature>;

    Hook() = default;
    Hook(const Hook&) = delete;
    Hook& operator=(const Hook& other)
    {
        std::atomic_store(&m_pFunction, other.get());
        return *this;
    }

    Hook& operator=(Function function)
    {
        std::atomic_store(&m_pFunction, function ? std::make_shared<const Function>(std::move(function)) : nullptr);
        return *this;
    }

    /// @return what to call; null: nothing
    std::shared_ptr<const Function> get() const { return std::atomic_load(&m_pFunction); }

private:
    std::shared_ptr<const Function> m_pFunction;
};

/// Stands between this program and some functions of the system. Without a hook they do what they always do.
///
/// Hooks are called on the threads that come through them. All are gone at the start of each test. Set flags before
/// the threads that come through them start. Except where it is said, only calls by this program's own objects and
/// static libraries are seen.
struct SystemCalls
{
    /// Answers an open of a path, or nothing: the system answers.
    Hook<std::optional<int>(const std::string& path, int flags)> open;

    /// Answers an ioctl with its one argument, or nothing: the system answers.
    Hook<std::optional<int>(int descriptor, unsigned long request, void* argument)> ioctl;

    /// Takes the place of usleep.
    Hook<void(useconds_t microseconds)> usleep;

    /// Is told before each poll; milliseconds as poll takes them.
    Hook<void(const pollfd* waited, nfds_t count, int milliseconds)> polling;

    /// Answers a poll, or nothing: the system answers.
    Hook<std::optional<int>(pollfd* waited, nfds_t count, int milliseconds)> poll;

    /// Answers a munmap, or nothing: the system answers.
    Hook<std::optional<int>(void* address, std::size_t length)> munmap;

    /// Is told before each writev, with the number of parts.
    Hook<void(int descriptor, int count)> writing;

    /// Is told before each sendto, also of shared libraries; may throw in its place.
    Hook<void()> sending;

    /// Is asked before each recv, also of shared libraries, whether it shall fail with ENOMEM.
    Hook<bool()> recvFails;

    /// Is called before each poll of the network library's sockets, and may throw. They are in a shared library.
    Hook<void()> socketPoll;

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
