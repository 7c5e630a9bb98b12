#ifndef TESTS_UNIT_SUPPORT_LOG_LINE_H
#define TESTS_UNIT_SUPPORT_LOG_LINE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/captured_log.h"

/// Expects that exactly one record with this format was logged by this file at this level, as module 4, without debug
/// flag, and returns its text.
inline std::string onlyLine(const std::string& path, int level, const std::string& format)
{
    const std::vector<LogRecord> found = CapturedLog::withFormat(format);
    EXPECT_EQ(found.size(), 1U) << format;
    if (found.empty()) {
        return "";
    }
    EXPECT_EQ(found[0].module, 4);
    EXPECT_EQ(found[0].level, level) << format;
    EXPECT_EQ(found[0].debugFlag, 0);
    EXPECT_EQ(found[0].reserved, 0);
    EXPECT_EQ(found[0].path, path);
    EXPECT_GT(found[0].line, 0);
    return found[0].text;
}

#endif
