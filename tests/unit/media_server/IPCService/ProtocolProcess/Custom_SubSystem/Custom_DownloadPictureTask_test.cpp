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

TEST_F(DownloadPictureTaskTest, SeventyFiveRecordsAreThreePages)
{
    download(75);
    EXPECT_EQ(m_platform.bodies(),
              (std::vector<std::string>{pageRequest(0, 30), resultDocument(0, 30), pageRequest(30, 30),
                                        resultDocument(30, 30), pageRequest(60, 15), resultDocument(60, 15)}));
    EXPECT_EQ(m_itgt.requests().size(), 9U);
    EXPECT_EQ(loggedBy(LOG_FILE), std::vector<LogLine>{info("DownloadPictureTask runTask")});
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
    EXPECT_EQ(loggedBy(LOG_FILE),
              (std::vector<LogLine>{info("DownloadPictureTask runTask"), error("DownloadPictureProcess fail.")}));
}

TEST_F(DownloadPictureTaskTest, PausesASecondAfterEachPageWhenTold)
{
    m_task.m_bNoPageDelay = 0;
    const Stopwatch watch;
    download(31);
    EXPECT_GE(watch.elapsed(), std::chrono::milliseconds(2000));
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
