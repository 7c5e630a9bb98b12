#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadPictureTask.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "download_fixture.h"

using namespace IPCService::MetaDataGW;

namespace {

constexpr char LOG_FILE[] = "Custom_DownloadPictureTask";

/** The pages of one download. */
class DownloadPictureTaskTest : public DownloadTest
{
protected:
    void download(std::uint32_t totalNum)
    {
        m_task.m_downloadTaskParam = task(totalNum);
        m_task.runTask();
    }

    DownloadPictureTask m_task;
};

TEST_F(DownloadPictureTaskTest, IsMadeEmptyWithItsName)
{
    EXPECT_EQ(m_task.name(), "Custom Download Picture");
    EXPECT_EQ(m_task.m_bNoPageDelay, 1);
    EXPECT_EQ(m_task.m_downloadTaskParam.ServerIp, "");
    EXPECT_EQ(m_task.m_downloadTaskParam.ServerPort, 0);
    EXPECT_EQ(m_task.m_downloadTaskParam.totalNum, 0U);
}

TEST_F(DownloadPictureTaskTest, NoRecordsNeedNoRequest)
{
    download(0);
    EXPECT_EQ(loggedBy(LOG_FILE), std::vector<LogLine>{info("DownloadPictureTask runTask")});
    EXPECT_EQ(m_platform.accepted(), 0);
    EXPECT_TRUE(m_itgt.requests().empty());
    EXPECT_FALSE(pageFileExists("white0"));
}

TEST_F(DownloadPictureTaskTest, OneRecordIsAPage)
{
    download(1);
    EXPECT_EQ(m_platform.bodies(), (std::vector<std::string>{pageRequest(0, 1), resultDocument(0, 1)}));
}

TEST_F(DownloadPictureTaskTest, ThirtyRecordsAreOnePage)
{
    download(30);
    EXPECT_EQ(m_platform.bodies(), (std::vector<std::string>{pageRequest(0, 30), resultDocument(0, 30)}));
    EXPECT_EQ(loggedBy(LOG_FILE), std::vector<LogLine>{info("DownloadPictureTask runTask")});
}

TEST_F(DownloadPictureTaskTest, ThirtyOneRecordsAreTwoPages)
{
    download(31);
    EXPECT_EQ(m_platform.bodies(), (std::vector<std::string>{pageRequest(0, 30), resultDocument(0, 30),
                                                             pageRequest(30, 1), resultDocument(30, 1)}));
}

TEST_F(DownloadPictureTaskTest, SeventyFiveRecordsAreThreePages)
{
    m_platformScript = [number = 0](TlsConnection& connection, const std::string&) mutable {
        connection.send(httpAnswer("answer " + std::to_string(++number)));
    };
    download(75);
    EXPECT_EQ(m_platform.bodies(),
              (std::vector<std::string>{pageRequest(0, 30), resultDocument(0, 30), pageRequest(30, 30),
                                        resultDocument(30, 30), pageRequest(60, 15), resultDocument(60, 15)}));
    EXPECT_EQ(pageFile("white0"), "answer 1");
    EXPECT_EQ(pageFile("white30"), "answer 3");
    EXPECT_EQ(pageFile("white60"), "answer 5");
    EXPECT_EQ(m_itgt.requests().size(), 9U);
}

TEST_F(DownloadPictureTaskTest, PagesGoToTheirPathAndResultsToTheirs)
{
    download(1);
    const std::vector<std::string> requests = m_platform.requests();
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_EQ(requests[0].substr(0, requests[0].find('\r')), "POST /page HTTP/1.1");
    EXPECT_EQ(requests[1].substr(0, requests[1].find('\r')), "POST /result HTTP/1.1");
}

TEST_F(DownloadPictureTaskTest, FailedPageEndsTheDownload)
{
    m_platformScript = [](TlsConnection& connection, const std::string& request) {
        const bool second = request.find("\"startIndex\" : 30,") != std::string::npos;
        connection.send(httpAnswer("", second ? "HTTP/1.1 500 Internal Server Error" : "HTTP/1.1 200 OK"));
    };
    download(75);
    EXPECT_EQ(m_platform.bodies(),
              (std::vector<std::string>{pageRequest(0, 30), resultDocument(0, 30), pageRequest(30, 30)}));
    EXPECT_EQ(m_itgt.requests(7020).size(), 1U);
    EXPECT_EQ(loggedBy(LOG_FILE),
              (std::vector<LogLine>{info("DownloadPictureTask runTask"), error("DownloadPictureProcess fail.")}));
}

TEST_F(DownloadPictureTaskTest, EachPageHasTheImportTaskThatItgtGaveIt)
{
    m_itgtScript = [id = std::int64_t{100}](const std::string& request) mutable {
        return commandOf(request) == 7020 ? importReply(++id) : importAtOnce(request);
    };
    download(60);
    const std::vector<std::string> progress = m_itgt.requests(7021);
    ASSERT_EQ(progress.size(), 2U);
    EXPECT_EQ(numberAt<std::int64_t>(progress[0], 304), 101);
    EXPECT_EQ(numberAt<std::int64_t>(progress[1], 304), 102);
}

TEST_F(DownloadPictureTaskTest, PageWithoutAnImportTaskKeepsTheOneBefore)
{
    m_itgtScript = [first = true](const std::string& request) mutable {
        if (commandOf(request) != 7020 || first) {
            first = first && commandOf(request) != 7020;
            return importAtOnce(request);
        }
        return messageOf(7019);
    };
    download(60);
    const std::vector<std::string> progress = m_itgt.requests(7021);
    ASSERT_EQ(progress.size(), 2U);
    EXPECT_EQ(numberAt<std::int64_t>(progress[1], 304), 4711);
}

TEST_F(DownloadPictureTaskTest, FirstPageWithoutAnImportTaskAsksForZero)
{
    m_itgtScript = [](const std::string& request) {
        return commandOf(request) == 7020 ? messageOf(7019) : importAtOnce(request);
    };
    download(1);
    ASSERT_EQ(m_itgt.requests(7021).size(), 1U);
    EXPECT_EQ(numberAt<std::int64_t>(m_itgt.requests(7021)[0], 304), 0);
}

TEST_F(DownloadPictureTaskTest, FailedReportDoesNotEndTheDownload)
{
    std::filesystem::remove("/tmp/state.json");
    download(31);
    EXPECT_EQ(m_platform.bodies(), (std::vector<std::string>{pageRequest(0, 30), pageRequest(30, 1)}));
    EXPECT_EQ(countLogged(LOG_FILE, "DownloadPictureProcess fail."), 0);
}

TEST_F(DownloadPictureTaskTest, PagesFollowEachOtherWithoutAPause)
{
    const Stopwatch watch;
    download(75);
    EXPECT_LT(watch.elapsed(), atMost(std::chrono::milliseconds(1000)));
}

TEST_F(DownloadPictureTaskTest, PausesASecondAfterEachPageWhenTold)
{
    m_task.m_bNoPageDelay = 0;
    const Stopwatch watch;
    download(31);
    EXPECT_GE(watch.elapsed(), std::chrono::milliseconds(2000));
    EXPECT_LT(watch.elapsed(), atMost(std::chrono::milliseconds(3500)));
    EXPECT_EQ(m_platform.accepted(), 4);
}

TEST_F(DownloadPictureTaskTest, KeepsItsParametersAndRunsAgain)
{
    download(1);
    m_task.runTask();
    EXPECT_EQ(m_platform.bodies(), (std::vector<std::string>{pageRequest(0, 1), resultDocument(0, 1), pageRequest(0, 1),
                                                             resultDocument(0, 1)}));
}

}  // namespace
