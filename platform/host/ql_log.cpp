/*
 * Stand-in for the camera's log: one line a record on standard error,
 *
 *     2024-05-01T12:34:56.789 INFO media_server/IPCService/Public/Some:42 text
 *
 * The line goes out with one write(2). Only where the kernel takes a part of it (a full pipe that does not block) does
 * the rest follow in another.
 */
#include "ql_log.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <exception>
#include <string>
#include <string_view>

#include "escaped_text.h"

namespace {

constexpr int POLL_MILLISECONDS = 1000;

/**
 * Keeps the lines of different threads apart: a pipe takes a write of more than PIPE_BUF bytes in pieces.
 * Nothing must silence the log. A thread that died with the lock leaves it to the next one, a child that was forked in
 * the middle of a record begins with a lock of its own, and a signal's handler that logs in the middle of its thread's
 * own record goes ahead without it.
 */
class OutputLock
{
public:
    OutputLock()
    {
        make();
        pthread_atfork(nullptr, nullptr, makeAnew);
    }

    bool acquire()
    {
        const int result = pthread_mutex_lock(&m_mutex);
        if (result == EOWNERDEAD) {
            pthread_mutex_consistent(&m_mutex);
        }
        return result == 0 || result == EOWNERDEAD;
    }

    void release() { pthread_mutex_unlock(&m_mutex); }

private:
    void make()
    {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
        pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
        pthread_mutex_init(&m_mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    static void makeAnew();

    pthread_mutex_t m_mutex;  // never destroyed: other libraries may log while the process exits
};

OutputLock outputLock;

void OutputLock::makeAnew()
{
    outputLock.make();
}

/** A turn at standard error. */
class OutputTurn
{
public:
    OutputTurn() : m_taken(outputLock.acquire()) {}
    ~OutputTurn()
    {
        if (m_taken) {
            outputLock.release();
        }
    }
    OutputTurn(const OutputTurn&) = delete;
    OutputTurn& operator=(const OutputTurn&) = delete;

private:
    bool m_taken;
};

/** Logging neither changes errno nor is a place where a thread can be cancelled. */
class CallerState
{
public:
    CallerState() : m_errno(errno) { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_cancelState); }
    ~CallerState()
    {
        pthread_setcancelstate(m_cancelState, nullptr);
        errno = m_errno;
    }
    CallerState(const CallerState&) = delete;
    CallerState& operator=(const CallerState&) = delete;

private:
    int m_errno;
    int m_cancelState = PTHREAD_CANCEL_ENABLE;
};

/** Holds SIGPIPE back: a reader of the log that went away must not end the process. */
class BrokenPipeGuard
{
public:
    BrokenPipeGuard()
    {
        sigemptyset(&m_pipeSignal);
        sigaddset(&m_pipeSignal, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_pipeSignal, &m_mask);
        m_heldBefore = sigismember(&m_mask, SIGPIPE) == 1;
        if (m_heldBefore) {
            sigset_t pending;
            sigpending(&pending);
            m_pendingBefore = sigismember(&pending, SIGPIPE) == 1;
        }
    }
    ~BrokenPipeGuard()
    {
        if (!m_heldBefore) {
            pthread_sigmask(SIG_SETMASK, &m_mask, nullptr);
        }
    }
    BrokenPipeGuard(const BrokenPipeGuard&) = delete;
    BrokenPipeGuard& operator=(const BrokenPipeGuard&) = delete;

    /** Takes back the signal of a write that failed with EPIPE. */
    void swallow() const
    {
        const timespec noWait{};
        while (!m_pendingBefore && sigtimedwait(&m_pipeSignal, nullptr, &noWait) == -1 && errno == EINTR) {
        }
    }

private:
    sigset_t m_pipeSignal{};
    sigset_t m_mask{};
    bool m_heldBefore = false;
    bool m_pendingBefore = false;  // can only be so when it was held back before
};

std::string localTime()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char date[32];
    const std::size_t length = strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local);
    const std::string thousandAndMilliseconds = std::to_string(1000 + now.tv_nsec / 1000000);
    return std::string(date, length) + '.' + thousandAndMilliseconds.substr(1);
}

std::string levelName(int level)
{
    switch (level) {
        case 0:
            return "DEBUG";
        case 1:
            return "INFO";
        case 3:
            return "ERROR";
        default:
            return std::to_string(level);
    }
}

/** The format itself where it cannot be followed; the beginning of the text where memory is short. */
__attribute__((format(printf, 1, 0))) std::string formattedText(const char* format, va_list arguments)
{
    char shortText[512];
    va_list firstPass;
    va_copy(firstPass, arguments);
    const int length = vsnprintf(shortText, sizeof shortText, format, firstPass);
    va_end(firstPass);
    if (length < 0) {
        return format;
    }
    if (static_cast<std::size_t>(length) < sizeof shortText) {
        return std::string(shortText, static_cast<std::size_t>(length));
    }
    try {
        std::string text(static_cast<std::size_t>(length), '\0');
        return vsnprintf(text.data(), text.size() + 1, format, arguments) == length ? text : shortText;
    } catch (const std::exception&) {
        return shortText;
    }
}

void writeLine(std::string_view line)
{
    const BrokenPipeGuard brokenPipeGuard;
    while (!line.empty()) {
        const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
        if (written > 0) {
            line.remove_prefix(static_cast<std::size_t>(written));
            continue;
        }
        if (written == -1 && errno == EINTR) {
            continue;
        }
        if (written == -1 && errno == EPIPE) {
            brokenPipeGuard.swallow();
            return;
        }
        pollfd ready{STDERR_FILENO, POLLOUT, 0};
        if (written == 0 || errno != EAGAIN || poll(&ready, 1, POLL_MILLISECONDS) <= 0) {
            return;
        }
    }
}

}  // namespace

void QL_WriteLog(int /*module*/, int level, int /*debugFlag*/, int /*reserved*/, const char* sourcePath, int sourceLine,
                 const char* format, ...)
{
    const CallerState callerState;
    va_list arguments;
    va_start(arguments, format);
    try {
        const std::string text = format == nullptr ? std::string() : formattedText(format, arguments);
        std::string line = localTime() + ' ' + levelName(level) + ' ';
        line += escapedText(sourcePath == nullptr ? "" : sourcePath);
        line += ':' + std::to_string(sourceLine) + ' ';
        line += escapedText(text);
        line += '\n';
        const OutputTurn turn;
        writeLine(line);
    } catch (const std::exception&) {
        // Out of memory: the record is lost, the caller goes on.
    }
    va_end(arguments);
}
