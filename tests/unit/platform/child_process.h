#ifndef TESTS_UNIT_PLATFORM_CHILD_PROCESS_H
#define TESTS_UNIT_PLATFORM_CHILD_PROCESS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

/** Any wait of these tests that takes longer has failed. */
constexpr int DEADLINE_MILLISECONDS = 20000;

/** A program that runs beside the test, its standard output and standard error on pipes. Killed at the end of its life.
 */
class Program
{
public:
    explicit Program(std::vector<std::string> words, const char* outputFile = nullptr)
    {
        std::array<int, 2> output{};
        std::array<int, 2> errors{};
        EXPECT_EQ(pipe2(output.data(), O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(errors.data(), O_CLOEXEC), 0);
        // Room for all complaints of a program whose test waits for something else than its streams.
        EXPECT_NE(fcntl(errors[1], F_SETPIPE_SZ, 1024 * 1024), -1);
        std::vector<char*> arguments;
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        m_process = fork();
        if (m_process == 0) {
            dup2(outputFile == nullptr ? output[1] : open(outputFile, O_WRONLY), STDOUT_FILENO);
            dup2(errors[1], STDERR_FILENO);
            execv(arguments[0], arguments.data());
            _exit(127);
        }
        close(output[1]);
        close(errors[1]);
        m_output.descriptor = output[0];
        m_errors.descriptor = errors[0];
    }
    ~Program()
    {
        if (m_process > 0) {
            kill(m_process, SIGKILL);
            waitpid(m_process, nullptr, 0);
        }
        close(m_output.descriptor);
        close(m_errors.descriptor);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /** The next line of standard output without its line end; what there is at the end of the output or the deadline.
     */
    std::string line()
    {
        while (m_output.text.find('\n') == std::string::npos && !m_output.ended && readMore()) {
        }
        const std::size_t end = m_output.text.find('\n');
        const std::string result = m_output.text.substr(0, end);
        m_output.text.erase(0, end == std::string::npos ? end : end + 1);
        return result;
    }

    /** Everything of standard output that line() has not taken, up to its end. */
    std::string output()
    {
        while (!m_output.ended && readMore()) {
        }
        return m_output.text;
    }

    std::string errors()
    {
        while (!m_errors.ended && readMore()) {
        }
        return m_errors.text;
    }

    void signal(int number) const { kill(m_process, number); }

    /** Waits for the end. @return the exit code, -1 after a signal or the deadline */
    int exitCode()
    {
        output();
        errors();
        if (!m_output.ended || !m_errors.ended) {
            return -1;
        }
        int status = -1;
        waitpid(m_process, &status, 0);
        m_process = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    struct Stream
    {
        int descriptor = -1;
        bool ended = false;
        std::string text;
    };

    /** Takes what either stream has next: a program must never wait for the one that the test is not looking at. */
    bool readMore()
    {
        std::array<pollfd, 2> ready{{{m_output.ended ? -1 : m_output.descriptor, POLLIN, 0},
                                     {m_errors.ended ? -1 : m_errors.descriptor, POLLIN, 0}}};
        if (poll(ready.data(), ready.size(), DEADLINE_MILLISECONDS) <= 0) {
            ADD_FAILURE() << "the program is silent for too long";
            return false;
        }
        take(m_output, ready[0]);
        take(m_errors, ready[1]);
        return true;
    }

    static void take(Stream& stream, const pollfd& ready)
    {
        if (ready.revents == 0) {
            return;
        }
        std::array<char, 65536> buffer{};
        const ssize_t length = read(stream.descriptor, buffer.data(), buffer.size());
        stream.text.append(buffer.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
        stream.ended = length <= 0;
    }

    pid_t m_process = -1;
    Stream m_output;
    Stream m_errors;
};

#endif
