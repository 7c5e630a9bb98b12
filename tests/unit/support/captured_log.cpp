#include "support/captured_log.h"

#include <algorithm>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <mutex>

#include "ql_log.h"
#include "support/requirement.h"

namespace {

struct Log
{
    std::mutex mutex;
    std::condition_variable grown;
    std::vector<LogRecord> records;
};

/// Never destroyed: a thread may log until the process has ended.
Log& log()
{
    static Log& instance = *new Log;
    return instance;
}

std::string formatted(const char* format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int size = std::vsnprintf(nullptr, 0, format, arguments);
    require(size >= 0, "a log line can be written", format);
    std::string text(static_cast<std::size_t>(std::max(size, 0)), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

bool waitFor(const std::function<bool(const LogRecord&)>& wanted, std::size_t count, std::chrono::milliseconds deadline)
{
    std::unique_lock<std::mutex> lock(log().mutex);
    return log().grown.wait_until(lock, std::chrono::system_clock::now() + deadline, [&wanted, count] {
        const auto found = std::count_if(log().records.begin(), log().records.end(), wanted);
        return static_cast<std::size_t>(found) >= count;
    });
}

}  // namespace

void QL_WriteLog(int module, int level, int debugFlag, int reserved, const char* sourcePath, int sourceLine,
                 const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    LogRecord record{module, level, debugFlag, reserved, sourcePath, sourceLine, format, formatted(format, arguments)};
    va_end(arguments);
    const std::lock_guard<std::mutex> lock(log().mutex);
    log().records.push_back(std::move(record));
    log().grown.notify_all();
}

namespace CapturedLog {

std::vector<LogRecord> records()
{
    const std::lock_guard<std::mutex> lock(log().mutex);
    return log().records;
}

std::vector<LogRecord> withFormat(const std::string& format)
{
    std::vector<LogRecord> found;
    for (const LogRecord& record : records()) {
        if (record.format == format) {
            found.push_back(record);
        }
    }
    return found;
}

std::vector<std::string> texts()
{
    std::vector<std::string> found;
    for (const LogRecord& record : records()) {
        found.push_back(record.text);
    }
    return found;
}

bool waitForFormat(const std::string& format, std::size_t count, std::chrono::milliseconds deadline)
{
    return waitFor([&format](const LogRecord& record) { return record.format == format; }, count, deadline);
}

bool waitForText(const std::string& text, std::chrono::milliseconds deadline)
{
    return waitFor([&text](const LogRecord& record) { return record.text == text; }, 1, deadline);
}

void clear()
{
    const std::lock_guard<std::mutex> lock(log().mutex);
    log().records.clear();
}

}  // namespace CapturedLog
