#include "media_server/IPCService/Public/ServiceLog.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/captured_log.h"

namespace {

constexpr IPCService::LogSource LOG_SOURCE{"folder/file"};

void expectRecord(int level, int line, const std::string& text)
{
    const std::vector<LogRecord> records = CapturedLog::records();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].module, 4);
    EXPECT_EQ(records[0].level, level);
    EXPECT_EQ(records[0].debugFlag, 0);
    EXPECT_EQ(records[0].reserved, 0);
    EXPECT_EQ(records[0].path, "folder/file");
    EXPECT_EQ(records[0].line, line);
    EXPECT_EQ(records[0].text, text);
    CapturedLog::clear();
}

TEST(ServiceLog, WritesModuleLevelSourceAndText)
{
    LOG(Debug, "detail %d", 1);
    expectRecord(0, __LINE__ - 1, "detail 1");
    LOG(Information, " information ");
    expectRecord(1, __LINE__ - 1, " information ");
    LOG(Error, "error %s\n", "x");
    expectRecord(3, __LINE__ - 1, "error x\n");
}

TEST(ServiceLog, WritesAGivenLine)
{
    LOG_AT(Error, 91, "text");
    expectRecord(3, 91, "text");
}

}  // namespace
