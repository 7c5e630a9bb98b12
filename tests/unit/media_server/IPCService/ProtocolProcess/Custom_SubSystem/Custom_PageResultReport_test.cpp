#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PageResultReport.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "media_server/IPCService/Public/Interruption.h"
#include "page_report_fixture.h"

using IPCService::Interrupted;
using IPCService::Interruption;

namespace {

constexpr char LOG_FILE[] = "Custom_DownloadPictureProcObj";
constexpr char TWO_RESULTS[] =
    R"({"TaskResultArry":[{"ID":"B2","RESULT_TYPE_E":0},{"ID":"A1","RESULT_TYPE_E":7}],"Other":1})";
constexpr char TWO_RESULTS_DOCUMENT[] =
    R"({"ImportInfo":[{"credentialNumber":"B2","importStatus":0},{"credentialNumber":"A1","importStatus":7}],)"
    R"("cameraCode":"C1","datatime":"2024-05-06 07:08:09","offset":15,"securityCode":"S1","startIndex":60,"taskID":"T1"})";

class PageReport : public PageReportTest
{
};

TEST_F(PageReport, PostsTheDocumentByteForByte)
{
    report(TWO_RESULTS);
    EXPECT_EQ(document(), TWO_RESULTS_DOCUMENT);
}

TEST_F(PageReport, PutsThePostOnTheWireByteForByte)
{
    report(TWO_RESULTS);
    const std::string body = TWO_RESULTS_DOCUMENT;
    EXPECT_EQ(m_platform.requests(), std::vector<std::string>{"POST /result HTTP/1.1\r\n"
                                                              "Content-Type: application/json;charset=UTF-8\r\n"
                                                              "Accept: application/json;charset=UTF-8\r\n"
                                                              "Content-Length: " +
                                                              std::to_string(body.size()) +
                                                              "\r\n"
                                                              "Connection: Close\r\n"
                                                              "Host: 127.0.0.1:" +
                                                              std::to_string(m_platform.port()) + "\r\n\r\n" + body});
}

TEST_F(PageReport, AsksForTheTimeByteForByte)
{
    report(TWO_RESULTS);
    ASSERT_EQ(m_itgt.requests().size(), 1U);
    EXPECT_EQ(difference(requestOf("/tmp/II", 0, 7031), m_itgt.requests()[0]), "");
}

TEST_F(PageReport, LogsEachStepWithItsLine)
{
    m_platformScript = always(httpAnswer("thanks", "HTTP/1.1 200 Fine"));
    report(TWO_RESULTS);
    EXPECT_EQ(loggedBy(LOG_FILE),
              (std::vector<LogLine>{
                  at(182, info("picTaskResult Update TIME IS %s", "picTaskResult Update TIME IS 2024-05-06 07:08:09")),
                  at(190, info("Finish Task  startIndex %d  offset %d", "Finish Task  startIndex 60  offset 15")),
                  at(198, info("@@@picTaskResult Update  %s",
                               std::string("@@@picTaskResult Update  ") + TWO_RESULTS_DOCUMENT)),
                  at(217, info("response status %d ,picTaskResult %s responselen %d",
                               "response status 200 ,picTaskResult Fine responselen 6")),
              }));
}

TEST_F(PageReport, BindsItsOwnSocketOverAStaleFile)
{
    std::ofstream("/tmp/CP") << "stale";
    std::atomic<unsigned> mode{0};
    m_itgtScript = [&](const std::string& request) {
        struct stat status = {};
        EXPECT_EQ(lstat("/tmp/CP", &status), 0);
        mode = status.st_mode;
        return importAtOnce(request);
    };
    report(TWO_RESULTS);
    EXPECT_TRUE(S_ISSOCK(mode.load()));
    EXPECT_EQ(mode & 07777, 0660U);
}

TEST_F(PageReport, PicturesKeepTheOrderOfTheFile)
{
    std::string state = R"({"TaskResultArry":[)";
    std::string expected = "[";
    for (int i = 30; i > 0; --i) {
        const std::string end = i > 1 ? "," : "]";
        state += R"({"RESULT_TYPE_E":)" + std::to_string(i) + R"(,"ID":"P)" + std::to_string(i) + R"("})" + end;
        expected +=
            R"({"credentialNumber":"P)" + std::to_string(i) + R"(","importStatus":)" + std::to_string(i) + "}" + end;
    }
    report(state + "}");
    EXPECT_EQ(importInfo(), expected);
}

TEST_F(PageReport, NumberAsIdIsReportedAsText)
{
    report(R"({"TaskResultArry":[{"ID":1001,"RESULT_TYPE_E":0},{"ID":-5,"RESULT_TYPE_E":0},)"
           R"({"ID":9223372036854775807,"RESULT_TYPE_E":0}]})");
    EXPECT_EQ(importInfo(),
              R"([{"credentialNumber":"1001","importStatus":0},{"credentialNumber":"-5","importStatus":0},)"
              R"({"credentialNumber":"9223372036854775807","importStatus":0}])");
}

TEST_F(PageReport, TextAsResultIsReportedAsNumber)
{
    report(R"({"TaskResultArry":[{"ID":"A","RESULT_TYPE_E":"3"},{"ID":"B","RESULT_TYPE_E":"-4"}]})");
    EXPECT_EQ(importInfo(),
              R"([{"credentialNumber":"A","importStatus":3},{"credentialNumber":"B","importStatus":-4}])");
}

TEST_F(PageReport, ResultIsASigned64BitNumber)
{
    report(R"({"TaskResultArry":[{"ID":"A","RESULT_TYPE_E":9223372036854775807},{"ID":"B","RESULT_TYPE_E":-9}]})");
    EXPECT_EQ(importInfo(), R"([{"credentialNumber":"A","importStatus":9223372036854775807},)"
                            R"({"credentialNumber":"B","importStatus":-9}])");
}

TEST_F(PageReport, EmptyArrayIsPosted)
{
    report(R"({"TaskResultArry":[]})");
    EXPECT_EQ(document(), R"({"ImportInfo":[],"cameraCode":"C1","datatime":"2024-05-06 07:08:09","offset":15,)"
                          R"("securityCode":"S1","startIndex":60,"taskID":"T1"})");
}

TEST_F(PageReport, TextIsEscapedAndUtf8Kept)
{
    m_page.taskID = "a\"b/c\xC3\xA4";
    report(R"({"TaskResultArry":[{"ID":"\u00e4\n","RESULT_TYPE_E":0}]})");
    EXPECT_EQ(document(),
              "{\"ImportInfo\":[{\"credentialNumber\":\"\xC3\xA4\\n\",\"importStatus\":0}],"
              "\"cameraCode\":\"C1\",\"datatime\":\"2024-05-06 07:08:09\",\"offset\":15,"
              "\"securityCode\":\"S1\",\"startIndex\":60,\"taskID\":\"a\\\"b\\/c\xC3\xA4\"}");
}

TEST_F(PageReport, NumbersOfThePageAreUnsigned)
{
    m_page.startIndex = 4294967280U;
    m_page.offset = 0;
    report(R"({"TaskResultArry":[]})");
    EXPECT_NE(document().find(R"("offset":0,"securityCode":"S1","startIndex":4294967280,)"), std::string::npos);
}

TEST_F(PageReport, ReadsTheFileUpToItsFirstNul)
{
    report(std::string(R"({"TaskResultArry":[]})") + std::string("\0garbage", 8));
    EXPECT_EQ(importInfo(), "[]");
}

TEST_F(PageReport, ReplyToAnotherCommandLeavesOutTheTime)
{
    m_itgtScript = [](const std::string&) {
        std::string reply = timeReply("not this one");
        putNumber<std::uint32_t>(reply, 164, 7030);
        return reply;
    };
    report(R"({"TaskResultArry":[]})");
    EXPECT_EQ(document(),
              R"({"ImportInfo":[],"cameraCode":"C1","offset":15,"securityCode":"S1","startIndex":60,"taskID":"T1"})");
    EXPECT_EQ(countLogged(LOG_FILE, "picTaskResult Update TIME IS %s"), 0);
    EXPECT_EQ(loggedBy(LOG_FILE).size(), 3U);
}

TEST_F(PageReport, TimeWithoutItsEndStopsAtTheEndOfTheMessage)
{
    m_itgtScript = [](const std::string&) { return timeReply(std::string(MESSAGE_BYTES - 304, 't')); };
    report(R"({"TaskResultArry":[]})");
    EXPECT_NE(document().find(",\"datatime\":\"" + std::string(21104, 't') + "\",\"offset\""), std::string::npos);
}

TEST_F(PageReport, LongerReplyIsCut)
{
    m_itgtScript = [](const std::string&) { return timeReply("now") + std::string(1000, 'x'); };
    report(R"({"TaskResultArry":[]})");
    EXPECT_NE(document().find(R"("datatime":"now")"), std::string::npos);
}

TEST_F(PageReport, ReplyTooShortForACommandLeavesTheRequestsOwn)
{
    m_itgtScript = [](const std::string&) { return std::string(100, '\0'); };
    report(R"({"TaskResultArry":[]})");
    EXPECT_NE(document().find(R"("datatime":"")"), std::string::npos);
}

TEST_F(PageReport, ErrorStatusOfThePlatformIsLoggedLikeSuccess)
{
    m_platformScript = always(httpAnswer("oh dear", "HTTP/1.1 500 Internal Server Error"));
    report(R"({"TaskResultArry":[]})");
    EXPECT_EQ(loggedBy(LOG_FILE).back(),
              at(217, info("response status %d ,picTaskResult %s responselen %d",
                           "response status 500 ,picTaskResult Internal Server Error responselen 7")));
}

TEST_F(PageReport, UnreachablePlatformIsLogged)
{
    m_page.ServerPort = unusedPort();
    report(R"({"TaskResultArry":[]})");
    const LogLine last = loggedBy(LOG_FILE).back();
    EXPECT_EQ(last, at(221, info("metadata %s", last.text)));
    EXPECT_NE(last.text.find("metadata Connection refused"), std::string::npos) << last.text;
    EXPECT_EQ(countLogged(LOG_FILE, "response status %d ,picTaskResult %s responselen %d"), 0);
}

TEST_F(PageReport, PlatformThatCutsItsAnswerIsLogged)
{
    m_platformScript = always("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf");
    report(R"({"TaskResultArry":[]})");
    const LogLine last = loggedBy(LOG_FILE).back();
    EXPECT_EQ(last, at(221, info("metadata %s", last.text)));
}

TEST_F(PageReport, SilentPlatformEndsAfter5Seconds)
{
    m_platformScript = [](TlsConnection& connection, const std::string&) { connection.waitUntilClientLeaves(); };
    const Stopwatch watch;
    report(R"({"TaskResultArry":[]})");
    EXPECT_GE(watch.elapsed(), std::chrono::milliseconds(4900));
    EXPECT_LE(watch.elapsed(), atMost(std::chrono::milliseconds(6000)));
    EXPECT_EQ(loggedBy(LOG_FILE).back(), at(221, info("metadata %s", "metadata Timeout")));
}

/** Runs a report, interrupts it once it waits, and expects it to end within a second without an error line. */
template <typename Report, typename Waits>
void expectQuickEnd(Report report, Waits waits)
{
    Interruption interruption;
    std::atomic<bool> interrupted{false};
    std::thread thread([&] {
        const Interruption::Scope scope(interruption);
        try {
            report();
        } catch (const Interrupted&) {
            interrupted = true;
        }
    });
    EXPECT_TRUE(eventually(waits));
    const Stopwatch watch;
    interruption.interrupt();
    thread.join();
    EXPECT_LT(watch.elapsed(), atMost(std::chrono::seconds(1)));
    EXPECT_TRUE(interrupted);
    EXPECT_EQ(countLogged(LOG_FILE, "metadata %s"), 0);
    EXPECT_EQ(countLogged(LOG_FILE, "ReportPageResult err %s"), 0);
}

TEST_F(PageReport, InterruptionEndsTheWaitForASilentItgt)
{
    m_itgtScript = [](const std::string&) { return ""; };
    expectQuickEnd([this] { report(R"({"TaskResultArry":[]})"); }, [this] { return m_itgt.requests().size() == 1; });
    EXPECT_EQ(m_platform.accepted(), 0);
}

TEST_F(PageReport, InterruptionEndsTheWaitForASilentPlatform)
{
    m_platformScript = [](TlsConnection& connection, const std::string&) { connection.waitUntilServerEnds(); };
    expectQuickEnd([this] { report(R"({"TaskResultArry":[]})"); },
                   [this] { return m_platform.requests().size() == 1; });
}

}  // namespace
