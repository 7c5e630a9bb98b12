#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadPictureProcObj.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "download_fixture.h"

using namespace IPCService::MetaDataGW;

namespace {

constexpr char LOG_FILE[] = "Custom_DownloadPictureProcObj";

/** One page from its request to its report. */
class DownloadPictureProcessTest : public DownloadTest
{
protected:
    /** Answers each 7021 with the next of these replies; every other command as it should be. */
    void answerProgress(std::vector<std::string> replies)
    {
        m_itgtScript = [replies = std::move(replies), next = std::size_t{0}](const std::string& request) mutable {
            if (commandOf(request) != 7021 || next >= replies.size()) {
                return importAtOnce(request);
            }
            return replies[next++];
        };
    }

    int process()
    {
        m_page = page();
        return DownloadPictureProcess(m_page);
    }

    DownloadPictureProcParam m_page;
};

/** A progress reply that names another command. */
std::string replyToAnotherCommand()
{
    std::string reply = progressReply(1, "/tmp/other");
    putNumber<std::uint32_t>(reply, 164, 7020);
    return reply;
}

TEST_F(DownloadPictureProcessTest, FetchesImportsAndReportsThePage)
{
    EXPECT_EQ(process(), 1);
    EXPECT_EQ(m_platform.bodies(), (std::vector<std::string>{pageRequest(0, 30), resultDocument(0, 30)}));
    ASSERT_EQ(m_itgt.requests().size(), 3U);
    EXPECT_EQ(commandOf(m_itgt.requests()[0]), 7020U);
    EXPECT_EQ(commandOf(m_itgt.requests()[1]), 7021U);
    EXPECT_EQ(commandOf(m_itgt.requests()[2]), 7031U);
}

TEST_F(DownloadPictureProcessTest, AsksForTheProgressOfItsImportTaskByteForByte)
{
    process();
    std::string expected = requestOf("/tmp/II", 0, 7021);
    putNumber<std::int64_t>(expected, 304, 4711);
    ASSERT_EQ(m_itgt.requests(7021).size(), 1U);
    EXPECT_EQ(difference(expected, m_itgt.requests(7021)[0]), "");
}

TEST_F(DownloadPictureProcessTest, LogsEachStep)
{
    answerProgress({progressReply(1, "/tmp/state.json", 7, 30)});
    process();
    std::vector<LogLine> lines = loggedBy(LOG_FILE);
    ASSERT_EQ(lines.size(), 17U);
    EXPECT_EQ(lines[0], info(" DownLoad Picture begin %s.", " DownLoad Picture begin D1."));
    EXPECT_EQ(lines[8], info(" Notify ITGT result:%d", " Notify ITGT result:0"));
    EXPECT_EQ(lines[9], info(" DownLoad Picture Success."));
    EXPECT_EQ(lines[10], info("Wait for ITGT message "));
    EXPECT_EQ(lines[11], info("Task ID is %lld", "Task ID is 4711"));
    EXPECT_EQ(lines[12], info("Current process is %ld / %ld ", "Current process is 7 / 30 "));
    EXPECT_EQ(lines[13].number, 182);
    EXPECT_EQ(lines[16].number, 217);
}

TEST_F(DownloadPictureProcessTest, FailedFetchIsReturned)
{
    m_platformScript = always(httpAnswer("", "HTTP/1.1 500 Internal Server Error"));
    EXPECT_EQ(process(), 0);
    EXPECT_EQ(loggedBy(LOG_FILE).back(), info(" DownLoad Picture Fail."));
    EXPECT_TRUE(m_itgt.requests().empty());
    EXPECT_EQ(m_platform.accepted(), 1);
}

TEST_F(DownloadPictureProcessTest, HandsOnTheStateFileOfTheReply)
{
    std::ofstream("/tmp/elsewhere") << R"({"TaskResultArry":[{"ID":"X","RESULT_TYPE_E":2}]})";
    answerProgress({progressReply(1, "/tmp/elsewhere")});
    EXPECT_EQ(process(), 1);
    ASSERT_EQ(m_platform.bodies().size(), 2U);
    EXPECT_NE(m_platform.bodies()[1].find(R"({"credentialNumber":"X","importStatus":2})"), std::string::npos);
}

TEST_F(DownloadPictureProcessTest, PathWithoutItsEndStopsAtTheEndOfTheMessage)
{
    const std::string path(MESSAGE_BYTES - 336, 'p');
    answerProgress({progressReply(1, path)});
    EXPECT_EQ(process(), 1);
    EXPECT_EQ(firstLogged(LOG_FILE, " [Custom] download picture, open file %s error."),
              " [Custom] download picture, open file " + path + " error.");
    EXPECT_EQ(m_platform.accepted(), 1);
}

TEST_F(DownloadPictureProcessTest, ProgressNumbersAreSigned)
{
    answerProgress({progressReply(1, "/tmp/state.json", -1, -2)});
    process();
    EXPECT_EQ(firstLogged(LOG_FILE, "Current process is %ld / %ld "), "Current process is -1 / -2 ");
}

TEST_F(DownloadPictureProcessTest, AsksAgainASecondAfterEachNotYet)
{
    answerProgress({progressReply(0, "/tmp/early", 1), progressReply(2, "/tmp/early", 2),
                    progressReply(0xFFFFFFFF, "/tmp/early", 3)});
    const Stopwatch watch;
    EXPECT_EQ(process(), 1);
    EXPECT_GE(watch.elapsed(), std::chrono::milliseconds(3000));
    EXPECT_LT(watch.elapsed(), atMost(std::chrono::milliseconds(4500)));
    EXPECT_EQ(m_itgt.requests(7021).size(), 4U);
    EXPECT_EQ(countLogged(LOG_FILE, "Not Ready, try "), 3);
    EXPECT_EQ(countLogged(LOG_FILE, "Wait for ITGT message "), 4);
    EXPECT_EQ(countLogged(LOG_FILE, "Tried %d times, Fail!"), 0);
    EXPECT_EQ(m_platform.bodies().back(), resultDocument(0, 30));
}

TEST_F(DownloadPictureProcessTest, LaterTriesCarryWhatTheReplyBeforeThemWrote)
{
    std::string reply(MESSAGE_BYTES, 'Z');
    putNumber<std::uint32_t>(reply, 164, 7021);
    putNumber<std::uint32_t>(reply, 312, 2);
    answerProgress({reply});
    process();
    std::string expected = reply;
    putText(expected, 0, bytes("/tmp/II\0/tmp/CP\0"));
    putNumber<std::uint32_t>(expected, 160, 0);
    putNumber<std::int64_t>(expected, 200, 101);
    putNumber<std::int64_t>(expected, 304, 4711);
    ASSERT_EQ(m_itgt.requests(7021).size(), 2U);
    EXPECT_EQ(difference(expected, m_itgt.requests(7021)[1]), "");
}

TEST_F(DownloadPictureProcessTest, ShortReplyLeavesTheBufferAsItWas)
{
    answerProgress({std::string(100, '\0')});
    EXPECT_EQ(process(), 1);
    EXPECT_EQ(countLogged(LOG_FILE, "Not Ready, try "), 1);
    EXPECT_EQ(firstLogged(LOG_FILE, "Current process is %ld / %ld "), "Current process is 0 / 0 ");
    EXPECT_EQ(m_itgt.requests(7021).size(), 2U);
}

TEST_F(DownloadPictureProcessTest, GivesUpAfterTenNotYetsAndCountsNoOtherAnswer)
{
    std::vector<std::string> replies(12, progressReply(0, "/tmp/state.json", 3, 30));
    replies[0] = replyToAnotherCommand();
    replies[6] = replyToAnotherCommand();
    answerProgress(replies);
    const Stopwatch watch;
    EXPECT_EQ(process(), 1);
    EXPECT_GE(watch.elapsed(), std::chrono::milliseconds(12000));
    EXPECT_EQ(m_itgt.requests(7021).size(), 12U);
    EXPECT_EQ(countLogged(LOG_FILE, "Wait for ITGT message "), 12);
    EXPECT_EQ(countLogged(LOG_FILE, "Current process is %ld / %ld "), 10);
    EXPECT_EQ(countLogged(LOG_FILE, "Not Ready, try "), 10);
    EXPECT_EQ(loggedBy(LOG_FILE).back(), info("Tried %d times, Fail!", "Tried 10 times, Fail!"));
    EXPECT_EQ(m_platform.bodies().back(), resultDocument(0, 30)) << "the page is reported all the same";
}

TEST_F(DownloadPictureProcessTest, TenthAnswerMayStillBeTheGoodOne)
{
    answerProgress(std::vector<std::string>(9, progressReply(0, "/tmp/early")));
    EXPECT_EQ(process(), 1);
    EXPECT_EQ(m_itgt.requests(7021).size(), 10U);
    EXPECT_EQ(countLogged(LOG_FILE, "Not Ready, try "), 9);
    EXPECT_EQ(countLogged(LOG_FILE, "Tried %d times, Fail!"), 0);
}

}  // namespace
