#include "ql_log.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/child_process.h"
#include "platform/recorded_output.h"

namespace {

/** What one call writes, without the time at its start. */
template <typename... Arguments>
std::string logged(int level, const char* path, int line, const char* format, Arguments... arguments)
{
    const RecordedWrites writes;
    {
        const StandardError standardError(writes.target());
        // The format is the test's own, as in the caller's place.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        QL_WriteLog(4, level, 0, 0, path, line, format, arguments...);
#pragma GCC diagnostic pop
    }
    const std::string record = writes.next();
    EXPECT_EQ(writes.next(), "") << "more than one write";
    return record.substr(std::min(record.size(), record.find(' ') + 1));
}

TEST(WriteLog, WritesLevelPlaceAndTextOnOneLine)
{
    EXPECT_EQ(logged(1, "public/utils/some", 42, "[%s]:got %d of %lld ", "LogCommon", -3, 5000000000LL),
              "INFO public/utils/some:42 [LogCommon]:got -3 of 5000000000 \n");
}

TEST(WriteLog, NamesTheLevels)
{
    EXPECT_EQ(logged(0, "p", 1, "t"), "DEBUG p:1 t\n");
    EXPECT_EQ(logged(1, "p", 1, "t"), "INFO p:1 t\n");
    EXPECT_EQ(logged(3, "p", 1, "t"), "ERROR p:1 t\n");
    EXPECT_EQ(logged(2, "p", 1, "t"), "2 p:1 t\n");
    EXPECT_EQ(logged(-1, "p", 1, "t"), "-1 p:1 t\n");
}

TEST(WriteLog, BeginsWithTheLocalTimeInMilliseconds)
{
    const RecordedWrites writes;
    const std::time_t before = std::time(nullptr);
    {
        const StandardError standardError(writes.target());
        QL_WriteLog(4, 1, 0, 0, "p", 1, "t");
    }
    const std::time_t after = std::time(nullptr);
    const std::string record = writes.next();
    ASSERT_THAT(record,
                testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} INFO p:1 t\n"));
    std::tm local{};
    ASSERT_NE(strptime(record.c_str(), "%Y-%m-%dT%H:%M:%S", &local), nullptr);
    local.tm_isdst = -1;
    const std::time_t stated = std::mktime(&local);
    EXPECT_GE(stated, before);
    EXPECT_LE(stated, after);
}

TEST(WriteLog, EscapesControlCharactersAndLeavesOtherTextAlone)
{
    EXPECT_EQ(logged(1, "p", 1, "%s", "a\nb\r\t\x1b[2J\x7f\x01 c:\\d \"e\""),
              "INFO p:1 a\\nb\\r\\t\\x1b[2J\\x7f\\x01 c:\\d \"e\"\n");
    EXPECT_EQ(logged(1, "p\n", 1, "end\n"), "INFO p\\n:1 end\\n\n");
}

TEST(WriteLog, KeepsValidUtf8AndEscapesAllOtherBytes)
{
    const std::string valid = "\xc3\xa4 \xe6\xb1\x89 \xf0\x9f\x93\xb7 \xf4\x8f\xbf\xbf \xed\x9f\xbf";
    EXPECT_EQ(logged(1, "p", 1, "%s", valid.c_str()), "INFO p:1 " + valid + "\n");
    const std::map<const char*, const char*> escapes = {
        {"\xff", "\\xff"},                             // never part of UTF-8
        {"\x80", "\\x80"},                             // continuation without a start
        {"\xc2\x9b", "\\xc2\\x9b"},                    // C1 control character
        {"\xc0\xaf", "\\xc0\\xaf"},                    // overlong, two bytes
        {"\xe0\x80\xaf", "\\xe0\\x80\\xaf"},           // overlong, three bytes
        {"\xf0\x80\x80\xaf", "\\xf0\\x80\\x80\\xaf"},  // overlong, four bytes
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},           // surrogate
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},  // beyond U+10FFFF
        {"\xe6\xb1", "\\xe6\\xb1"},                    // cut at the end
        {"\xe6\xb1Z", "\\xe6\\xb1Z"},                  // cut in the middle
    };
    for (const auto& [text, expected] : escapes) {
        EXPECT_EQ(logged(1, "p", 1, "%s", text), std::string("INFO p:1 ") + expected + "\n");
    }
}

TEST(WriteLog, KeepsTextsOfAnyLengthWhole)
{
    for (const std::size_t length : {0UL, 1UL, 510UL, 511UL, 512UL, 513UL, 200UL * 1024UL}) {
        const std::string text(length, 'x');
        EXPECT_EQ(logged(1, "p", 1, "%s", text.c_str()), "INFO p:1 " + text + "\n") << length;
    }
}

TEST(WriteLog, TakesMissingPathAndFormat)
{
    const char* const missing = nullptr;
    EXPECT_EQ(logged(1, missing, 1, "t"), "INFO :1 t\n");
    EXPECT_EQ(logged(1, "p", 1, missing), "INFO p:1 \n");
}

TEST(WriteLog, KeepsErrno)
{
    const int notWritable = open("/dev/null", O_RDONLY | O_CLOEXEC);
    {
        const StandardError standardError(notWritable);
        errno = ENOTTY;
        QL_WriteLog(4, 1, 0, 0, "p", 1, "t");
        EXPECT_EQ(errno, ENOTTY);
    }
    close(notWritable);
}

TEST(WriteLog, KeepsTheLinesOfManyThreadsApartHoweverSlowlyTheyAreRead)
{
    constexpr int THREADS = 8;
    constexpr int RECORDS = 40;
    Pipe pipe;
    std::string text;
    std::thread reader([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(1200));  // pause: the slow reader
        text = pipe.drain();
    });
    {
        const StandardError standardError(pipe.writer());
        std::vector<std::thread> threads;
        for (int number = 0; number < THREADS; ++number) {
            threads.emplace_back([number] {
                for (int i = 0; i < RECORDS; ++i) {
                    const std::string body(i % 4 == 0 ? 100000 : 50, static_cast<char>('a' + number));
                    QL_WriteLog(4, 1, 0, 0, "p", i, "%s", body.c_str());
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    pipe.closeWriter();
    reader.join();
    std::map<char, int> next;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const char letter = line.back();
        const int record = next[letter]++;
        const std::string expected =
            "INFO p:" + std::to_string(record) + ' ' + std::string(record % 4 == 0 ? 100000 : 50, letter);
        ASSERT_EQ(line.substr(line.find(' ') + 1), expected);
    }
    ASSERT_EQ(next.size(), static_cast<std::size_t>(THREADS));
    for (const auto& [letter, count] : next) {
        EXPECT_EQ(count, RECORDS) << letter;
    }
}

TEST(WriteLog, WritesTheWholeRecordToAPipeThatDoesNotBlock)
{
    Pipe pipe;
    ASSERT_EQ(fcntl(pipe.writer(), F_SETFL, O_NONBLOCK), 0);
    std::string text;
    const std::string body(300000, 'x');
    std::thread reader([&] { text = pipe.drain(); });
    {
        const StandardError standardError(pipe.writer());
        QL_WriteLog(4, 1, 0, 0, "p", 1, "%s", body.c_str());
    }
    pipe.closeWriter();
    reader.join();
    EXPECT_EQ(text.substr(text.find(' ') + 1), "INFO p:1 " + body + "\n");
}

TEST(WriteLog, IsNoPlaceWhereAThreadIsCancelled)
{
    const RecordedWrites writes;
    std::atomic<bool> started{false};
    std::atomic<bool> cancelled{false};
    std::atomic<bool> returned{false};
    std::thread thread([&] {
        started = true;
        while (!cancelled) {
            std::this_thread::yield();
        }
        QL_WriteLog(4, 1, 0, 0, "p", 1, "logged in spite of it");
        returned = true;
    });
    while (!started) {
        std::this_thread::yield();
    }
    {
        const StandardError standardError(writes.target());
        pthread_cancel(thread.native_handle());
        cancelled = true;
        thread.join();
    }
    EXPECT_TRUE(returned);
    EXPECT_NE(writes.next().find("logged in spite of it"), std::string::npos);
}

/** The child has a copy of a lock that nobody in it will ever release. */
TEST(WriteLog, GoesOnInAChildThatWasForkedInTheMiddleOfARecord)
{
    Pipe stuck;
    Pipe fromChild;
    pid_t child = -1;
    const std::string body(300000, 'x');
    {
        const StandardError standardError(stuck.writer());
        std::thread writer([&body] { QL_WriteLog(4, 1, 0, 0, "p", 1, "%s", body.c_str()); });
        int waiting = 0;
        while (waiting < 65536) {  // the pipe is full: the writer is in the middle of its write
            ASSERT_EQ(ioctl(stuck.reader(), FIONREAD, &waiting), 0);
            std::this_thread::yield();
        }
        child = fork();
        if (child == 0) {
            dup2(fromChild.writer(), STDERR_FILENO);
            QL_WriteLog(4, 1, 0, 0, "p", 1, "from the child");
            _exit(0);
        }
        std::thread reader([&stuck] { stuck.drain(); });
        writer.join();
        stuck.closeWriter();
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, STDERR_FILENO);
        close(null);
        fromChild.closeWriter();
        reader.join();
    }
    pollfd ready{fromChild.reader(), POLLIN, 0};
    EXPECT_EQ(poll(&ready, 1, DEADLINE_MILLISECONDS), 1);
    EXPECT_NE(fromChild.drain().find("from the child"), std::string::npos);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

}  // namespace
