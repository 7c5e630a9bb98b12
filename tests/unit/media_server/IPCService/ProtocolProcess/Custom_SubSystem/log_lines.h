#ifndef TESTS_UNIT_CUSTOM_SUBSYSTEM_LOG_LINES_H
#define TESTS_UNIT_CUSTOM_SUBSYSTEM_LOG_LINES_H

#include <algorithm>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "support/captured_log.h"

/** One log record as these tests compare it: everything but the source path, which they pick records by. */
struct LogLine
{
    int level;
    std::string format;
    std::string text;
    int number = 0; /**< source line; 0 in an expected record: any */
    int module = 4;
    int debugFlag = 0;
    int reserved = 0;
};

inline bool operator==(const LogLine& left, const LogLine& right)
{
    const bool sameNumber = left.number == right.number || left.number == 0 || right.number == 0;
    return sameNumber && left.level == right.level && left.format == right.format && left.text == right.text &&
           left.module == right.module && left.debugFlag == right.debugFlag && left.reserved == right.reserved;
}

inline void PrintTo(const LogLine& line, std::ostream* out)
{
    *out << "\n  (" << line.module << ", " << line.level << ", " << line.debugFlag << ", " << line.reserved << ") line "
         << line.number << " [" << line.format << "] " << line.text.substr(0, 300);
}

/** A record at the information level whose format is given; with one argument the text is the format. */
inline LogLine info(const std::string& format, const std::string& text)
{
    return {1, format, text};
}
inline LogLine info(const std::string& text)
{
    return {1, text, text};
}

/** The same at the error level. */
inline LogLine error(const std::string& format, const std::string& text)
{
    return {3, format, text};
}
inline LogLine error(const std::string& text)
{
    return {3, text, text};
}

/** The record with its source line. */
inline LogLine at(int number, LogLine line)
{
    line.number = number;
    return line;
}

/** Every record of a source file of this folder, in order. */
inline std::vector<LogLine> loggedBy(const std::string& file)
{
    const std::string source = "media_server/IPCService/ProtocolProcess/Custom_SubSystem/" + file;
    std::vector<LogLine> lines;
    for (const LogRecord& record : CapturedLog::records()) {
        if (record.path == source) {
            lines.push_back({record.level, record.format, record.text, record.line, record.module, record.debugFlag,
                             record.reserved});
        }
    }
    return lines;
}

/** How many records of a source file have that format. */
inline long countLogged(const std::string& file, const std::string& format)
{
    const std::vector<LogLine> lines = loggedBy(file);
    return std::count_if(lines.begin(), lines.end(), [&](const LogLine& line) { return line.format == format; });
}

/** The text of the first record of a source file with that format, or nothing. */
inline std::string firstLogged(const std::string& file, const std::string& format)
{
    for (const LogLine& line : loggedBy(file)) {
        if (line.format == format) {
            return line.text;
        }
    }
    return "";
}

#endif
