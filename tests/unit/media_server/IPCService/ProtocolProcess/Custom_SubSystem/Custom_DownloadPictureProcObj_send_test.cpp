#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "download_fixture.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadPictureProcObj.h"
#include "support/system_calls.h"

using namespace IPCService::MetaDataGW;

namespace {

constexpr char LOG_FILE[] = "Custom_DownloadPictureProcObj";

/** Fetching one page and telling the analysis process of it. */
class SendSysObjTest : public DownloadTest
{
protected:
    int send(DownloadPictureProcParam& page)
    {
        CustomJSONDownloadPictureObj request(page);
        return SendSysObj(page, request, "/page");
    }

    /** Nothing was stored and nobody told. */
    void expectNothingDone()
    {
        EXPECT_TRUE(m_itgt.requests().empty());
        EXPECT_FALSE(pageFileExists("white0"));
    }
};

TEST_F(SendSysObjTest, StoresTheAnswerAndTellsItgt)
{
    DownloadPictureProcParam first = page();
    EXPECT_EQ(send(first), 0);
    EXPECT_EQ(m_platform.bodies(), std::vector<std::string>{pageRequest(0, 30)});
    EXPECT_EQ(pageFile("white0"), "the page");
    std::string expected = requestOf("/tmp/II", 1, 7020);
    putNumber<std::uint32_t>(expected, 208, 3);
    putNumber<std::uint32_t>(expected, 312, 0);
    putText(expected, 316, "/tmp/mmcblk0/face_basic/faceLib/");
    putText(expected, 448, "white0");
    ASSERT_EQ(m_itgt.requests().size(), 1U);
    EXPECT_EQ(difference(expected, m_itgt.requests()[0]), "");
    EXPECT_EQ(first.importTaskId, 4711);
}

TEST_F(SendSysObjTest, LogsEachStep)
{
    DownloadPictureProcParam first = page(30);
    send(first);
    EXPECT_EQ(loggedBy(LOG_FILE), (std::vector<LogLine>{
                                      info(" RegisterProcObj::SendSysObj, ContentData:%s",
                                           " RegisterProcObj::SendSysObj, ContentData:" + pageRequest(30, 30)),
                                      info("DownloadPictureProcess Status:%d", "DownloadPictureProcess Status:200"),
                                      info(" startIndex %d ", " startIndex 30 "),
                                      info(" Fullfilename %s", " Fullfilename /tmp/mmcblk0/face_basic/faceLib/white30"),
                                      info("Before recive msg from itgt"),
                                      info("after recive msg from itgt"),
                                      info("taskID is %lld", "taskID is 4711"),
                                      info(" Notify ITGT result:%d", " Notify ITGT result:0"),
                                  }));
}

TEST_F(SendSysObjTest, FileIsNamedAfterTheUnsignedStartIndex)
{
    DownloadPictureProcParam far = page(4294967280U);
    EXPECT_EQ(send(far), 0);
    EXPECT_EQ(pageFile("white4294967280"), "the page");
    ASSERT_EQ(m_itgt.requests().size(), 1U);
    EXPECT_EQ(textAt(m_itgt.requests()[0], 448), "white4294967280");
}

TEST_F(SendSysObjTest, FileEndsAtTheFirstNulOfTheAnswer)
{
    m_platformScript = always(httpAnswer(std::string("up to here\0and no further", 25)));
    DownloadPictureProcParam first = page();
    EXPECT_EQ(send(first), 0);
    EXPECT_EQ(pageFile("white0"), "up to here");
}

TEST_F(SendSysObjTest, EmptyAnswerMakesAnEmptyFile)
{
    m_platformScript = always(httpAnswer(""));
    DownloadPictureProcParam first = page();
    EXPECT_EQ(send(first), 0);
    EXPECT_TRUE(pageFileExists("white0"));
    EXPECT_EQ(pageFile("white0"), "");
}

TEST_F(SendSysObjTest, AnswerIsStoredUnparsedWhateverItIs)
{
    std::string answer = "\xFF\xFE no { json \r\n";
    answer += std::string(6U << 20, 'p');
    m_platformScript = always(httpAnswer(answer));
    DownloadPictureProcParam first = page();
    EXPECT_EQ(send(first), 0);
    EXPECT_TRUE(pageFile("white0") == answer);
}

TEST_F(SendSysObjTest, WhatIsWrittenIsOnTheDiskBeforeItgtIsTold)
{
    int flags = 0;
    systemCalls().open = [&flags](const std::string& path, int wanted) -> std::optional<int> {
        if (path == "/tmp/mmcblk0/face_basic/faceLib/white0") {
            flags = wanted;
        }
        return std::nullopt;
    };
    std::string found;
    m_itgtScript = [&](const std::string& request) {
        found = pageFile("white0");
        return importAtOnce(request);
    };
    DownloadPictureProcParam first = page();
    EXPECT_EQ(send(first), 0);
    EXPECT_EQ(flags & O_DSYNC, O_DSYNC);
    EXPECT_EQ(flags & O_NONBLOCK, O_NONBLOCK) << "a pipe of that name would be waited for";
    EXPECT_EQ(flags & O_CLOEXEC, O_CLOEXEC) << "programs that are started would inherit it";
    EXPECT_EQ(found, "the page");
}

TEST_F(SendSysObjTest, FileIsForReadingAndWritingOnly)
{
    umask(0);
    DownloadPictureProcParam first = page();
    EXPECT_EQ(send(first), 0);
    struct stat status = {};
    ASSERT_EQ(stat("/tmp/mmcblk0/face_basic/faceLib/white0", &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0666U);
}

TEST_F(SendSysObjTest, FileOfAnEarlierTaskIsOverwritten)
{
    std::filesystem::create_directory("/tmp/mmcblk0/face_basic/faceLib");
    std::ofstream("/tmp/mmcblk0/face_basic/faceLib/white0") << "a longer page of an earlier task";
    DownloadPictureProcParam first = page();
    EXPECT_EQ(send(first), 0);
    EXPECT_EQ(pageFile("white0"), "the page");
}

TEST_F(SendSysObjTest, MissingFolderIsMadeForEverybody)
{
    umask(0);
    DownloadPictureProcParam first = page();
    EXPECT_EQ(send(first), 0);
    struct stat status = {};
    ASSERT_EQ(stat("/tmp/mmcblk0/face_basic/faceLib", &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0777U);
}

TEST_F(SendSysObjTest, OnlyOneLevelOfFoldersIsMade)
{
    std::filesystem::remove("/tmp/mmcblk0/face_basic");
    DownloadPictureProcParam first = page();
    EXPECT_EQ(send(first), -1);
    EXPECT_FALSE(std::filesystem::exists("/tmp/mmcblk0/face_basic"));
    EXPECT_EQ(loggedBy(LOG_FILE).back(),
              info(" [Custom] download picture, open file %s error.",
                   " [Custom] download picture, open file /tmp/mmcblk0/face_basic/faceLib/white0 error."));
    expectNothingDone();
}

TEST_F(SendSysObjTest, FileThatCannotBeOpenedFailsThePage)
{
    std::filesystem::create_directories("/tmp/mmcblk0/face_basic/faceLib/white0");
    DownloadPictureProcParam first = page();
    EXPECT_EQ(send(first), -1);
    EXPECT_EQ(loggedBy(LOG_FILE).back(),
              info(" [Custom] download picture, open file %s error.",
                   " [Custom] download picture, open file /tmp/mmcblk0/face_basic/faceLib/white0 error."));
    EXPECT_TRUE(m_itgt.requests().empty());
}

TEST_F(SendSysObjTest, FileThatCannotBeWrittenFailsThePage)
{
    std::filesystem::create_directory("/tmp/mmcblk0/face_basic/faceLib");
    std::filesystem::create_symlink("/dev/full", "/tmp/mmcblk0/face_basic/faceLib/white0");
    DownloadPictureProcParam first = page();
    EXPECT_EQ(send(first), -1);
    EXPECT_TRUE(m_itgt.requests().empty());
}

TEST_F(SendSysObjTest, StatusOtherThan200FailsThePage)
{
    m_platformScript = always(httpAnswer("the page", "HTTP/1.1 201 Created"));
    DownloadPictureProcParam first = page();
    EXPECT_EQ(send(first), -1);
    EXPECT_EQ(loggedBy(LOG_FILE),
              (std::vector<LogLine>{info(" RegisterProcObj::SendSysObj, ContentData:%s",
                                         " RegisterProcObj::SendSysObj, ContentData:" + pageRequest(0, 30)),
                                    info("DownloadPictureProcess Status:%d", "DownloadPictureProcess Status:201"),
                                    info("[Custom] download picture, response error.")}));
    expectNothingDone();
}

TEST_F(SendSysObjTest, UnreachablePlatformFailsThePage)
{
    DownloadPictureProcParam first = page();
    first.ServerPort = unusedPort();
    EXPECT_EQ(send(first), -1);
    EXPECT_EQ(firstLogged(LOG_FILE, "DownloadPictureProcess Status:%d"), "DownloadPictureProcess Status:400");
    expectNothingDone();
}

TEST_F(SendSysObjTest, RequestThatCannotBeSerialisedFailsThePage)
{
    DownloadPictureProcParam first = page();
    CustomJSONBaseObj request;
    EXPECT_EQ(SendSysObj(first, request, "/page"), -1);
    EXPECT_EQ(
        loggedBy(LOG_FILE),
        std::vector<LogLine>{info("SendSysObj err %s", "SendSysObj err Custom Obj Create Failed: Serialize Failed")});
    EXPECT_EQ(m_platform.accepted(), 0);
    expectNothingDone();
}

TEST_F(SendSysObjTest, SocketThatCannotBeBoundFailsThePage)
{
    std::filesystem::create_directories("/tmp/CP/in the way");
    DownloadPictureProcParam first = page();
    EXPECT_EQ(send(first), -1);
    EXPECT_EQ(countLogged(LOG_FILE, "SendSysObj err %s"), 1);
    EXPECT_EQ(loggedBy(LOG_FILE).back().format, "SendSysObj err %s");
    EXPECT_TRUE(m_itgt.requests().empty());
}

TEST_F(SendSysObjTest, ReplyToAnotherCommandKeepsTheImportTask)
{
    m_itgtScript = [](const std::string&) {
        std::string reply = importReply(99);
        putNumber<std::uint32_t>(reply, 164, 7021);
        return reply;
    };
    DownloadPictureProcParam first = page();
    first.importTaskId = 12;
    EXPECT_EQ(send(first), 0);
    EXPECT_EQ(first.importTaskId, 12);
    EXPECT_EQ(countLogged(LOG_FILE, "taskID is %lld"), 0);
    EXPECT_EQ(loggedBy(LOG_FILE).back(), info(" Notify ITGT result:%d", " Notify ITGT result:0"));
}

TEST_F(SendSysObjTest, ImportTaskIsASigned64BitNumber)
{
    m_itgtScript = [](const std::string&) { return importReply(-9000000000000000001); };
    DownloadPictureProcParam first = page();
    EXPECT_EQ(send(first), 0);
    EXPECT_EQ(first.importTaskId, -9000000000000000001);
    EXPECT_EQ(firstLogged(LOG_FILE, "taskID is %lld"), "taskID is -9000000000000000001");
}

TEST_F(SendSysObjTest, SocketIsBoundOverAStaleFileWithMode0660)
{
    std::ofstream("/tmp/CP") << "stale";
    mode_t mode = 0;
    m_itgtScript = [&](const std::string& request) {
        struct stat status = {};
        EXPECT_EQ(lstat("/tmp/CP", &status), 0);
        mode = status.st_mode;
        return importAtOnce(request);
    };
    DownloadPictureProcParam first = page();
    EXPECT_EQ(send(first), 0);
    EXPECT_TRUE(S_ISSOCK(mode));
    EXPECT_EQ(mode & 07777, 0660U);
}

}  // namespace
