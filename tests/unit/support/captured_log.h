#ifndef TESTS_UNIT_SUPPORT_CAPTURED_LOG_H
#define TESTS_UNIT_SUPPORT_CAPTURED_LOG_H

#include <chrono>
#include <string>
#include <vector>

#include "support/waiting.h"

/// The arguments of one call of QL_WriteLog, and the text they make.
struct LogRecord
{
    int module;
    int level;
    int debugFlag;
    int reserved;
    std::string path;
    int line;
    std::string format;
    std::string text;
};

/// What the code under test logs: this program has a QL_WriteLog of its own, which keeps every record. Empty at the
/// start of each test. Any thread.
namespace CapturedLog {

/// Oldest first.
std::vector<LogRecord> records();

/// The records with this format.
std::vector<LogRecord> withFormat(const std::string& format);

/// The texts of all records, oldest first.
std::vector<std::string> texts();

/// Waits until there are that many records with this format. @return false when they do not come in time
bool waitForFormat(const std::string& format, std::size_t count = 1, std::chrono::milliseconds deadline = DEADLINE);

/// Waits until there is a record with this text. @return false when it does not come in time
bool waitForText(const std::string& text, std::chrono::milliseconds deadline = DEADLINE);

void clear();

}  // namespace CapturedLog

#endif
