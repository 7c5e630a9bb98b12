#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PageResultReport.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "download_fixture.h"
#include "interrupted_call.h"
#include "support/system_calls.h"

namespace {

constexpr char LOG_FILE[] = "Custom_DownloadPictureProcObj";
constexpr char NO_PICTURES[] = R"({"TaskResultArry":[]})";

/** The report of one page: from a state file to the platform's request. */
class PageReport : public DownloadTest
{
protected:
    /** Runs the report over a state file with that text. */
    void report(const std::string& state)
    {
        std::ofstream("/tmp/state.json", std::ios::binary) << state;
        reportFile("/tmp/state.json");
    }

    void reportFile(const char* path) { IPCService::MetaDataGW::ReportPageResult(m_page, path); }

    IPCService::MetaDataGW::DownloadPictureProcParam m_page = page(60);
};

TEST_F(PageReport, PostsThePicturesInTheOrderOfTheFile)
{
    report(R"({"TaskResultArry":[{"ID":"B2","RESULT_TYPE_E":0},{"ID":"A1","RESULT_TYPE_E":7}],"Other":1})");
    EXPECT_EQ(
        m_platform.bodies(),
        std::vector<std::string>{
            R"({"ImportInfo":[{"credentialNumber":"B2","importStatus":0},{"credentialNumber":"A1","importStatus":7}],)"
            R"("cameraCode":"C1","datatime":"2024-05-06 07:08:09","offset":30,"securityCode":"S1","startIndex":60,)"
            R"("taskID":"T1"})"});
    EXPECT_NE(m_platform.requests().back().find("\r\nConnection: Close\r\n"), std::string::npos);
    ASSERT_EQ(m_itgt.requests().size(), 1U);
    EXPECT_EQ(difference(requestOf("/tmp/II", 0, 7031), m_itgt.requests()[0]), "");
}

TEST_F(PageReport, NumbersOfThePageAreUnsigned)
{
    m_page.startIndex = 4294967280U;
    m_page.offset = 0;
    report(NO_PICTURES);
    EXPECT_EQ(m_platform.bodies(), std::vector<std::string>{resultDocument(4294967280U, 0)});
}

TEST_F(PageReport, RecordsAreFoundAtTheirLines)
{
    const auto lines = [this](const std::string& state) {
        CapturedLog::clear();
        report(state);
        std::vector<int> numbers;
        for (const LogLine& line : loggedBy(LOG_FILE)) {
            numbers.push_back(line.number);
        }
        return numbers;
    };
    EXPECT_EQ(lines(NO_PICTURES), (std::vector<int>{182, 190, 198, 217}));
    EXPECT_EQ(lines("{"), (std::vector<int>{118}));
    EXPECT_EQ(lines(R"({"TaskResultArry":1})"), (std::vector<int>{157}));
    m_page.ServerPort = unusedPort();
    EXPECT_EQ(lines(NO_PICTURES), (std::vector<int>{182, 190, 198, 221}));
}

TEST_F(PageReport, FileThatIsNotThereIsNamed)
{
    reportFile("/tmp/no such file");
    EXPECT_EQ(loggedBy(LOG_FILE),
              std::vector<LogLine>{at(77, error(" [Custom] download picture, open file %s error.",
                                                " [Custom] download picture, open file /tmp/no such file error."))});
}

TEST_F(PageReport, InterruptionEndsTheWaitForASilentPlatformWithoutAWord)
{
    m_platformScript = [](TlsConnection& connection, const std::string&) { connection.waitUntilServerEnds(); };
    expectInterrupted([this] { report(NO_PICTURES); }, [this] { return m_platform.requests().size() == 1; });
    EXPECT_EQ(countLogged(LOG_FILE, "metadata %s"), 0);
    EXPECT_EQ(countLogged(LOG_FILE, "ReportPageResult err %s"), 0);
}

/** State files that no client of the service can make it meet. */
class PageReportFailure : public PageReport
{
protected:
    /** The report ended with this one line, without a word to anybody. */
    void expectEndedBy(const LogLine& line)
    {
        EXPECT_EQ(loggedBy(LOG_FILE), std::vector<LogLine>{line});
        EXPECT_TRUE(m_itgt.requests().empty());
        EXPECT_EQ(m_platform.accepted(), 0);
    }
};

TEST_F(PageReportFailure, SizeIsNotToBeHad)
{
    systemCalls().fstatFails = true;
    report(NO_PICTURES);
    expectEndedBy(at(85, error(" state file %s error.", " state file /tmp/state.json error.")));
}

TEST_F(PageReportFailure, MemoryIsNotToBeHad)
{
    systemCalls().largestArray = 1000;
    report(std::string(1000, ' '));
    expectEndedBy(at(93, error(" malloc pJsonConfig error.")));
}

TEST_F(PageReportFailure, FileHas4Gigabytes)
{
    std::ofstream("/tmp/state.json") << NO_PICTURES;
    ASSERT_EQ(truncate("/tmp/state.json", 1LL << 32), 0);
    reportFile("/tmp/state.json");
    expectEndedBy(at(100, error("fread error.")));
}

TEST_F(PageReportFailure, PipeIsNotWaitedFor)
{
    ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
    reportFile("/tmp/pipe");
    const std::string text = firstLogged(LOG_FILE, "parser Err %s ");
    EXPECT_GT(text.size(), std::string("parser Err  ").size());
    expectEndedBy(at(118, error("parser Err %s ", text)));
}

}  // namespace
