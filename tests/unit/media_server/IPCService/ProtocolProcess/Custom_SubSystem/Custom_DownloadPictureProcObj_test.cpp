#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadPictureProcObj.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "download_fixture.h"
#include "support/system_calls.h"

using namespace IPCService::MetaDataGW;

namespace {

constexpr char LOG_FILE[] = "Custom_DownloadPictureProcObj";

mode_t permissionsOf(const char* path)
{
    struct stat status = {};
    EXPECT_EQ(stat(path, &status), 0) << path;
    return status.st_mode & 07777;
}

/** Fetching one page and telling the analysis process of it. */
class SendSysObjTest : public DownloadTest
{
protected:
    static int send(DownloadPictureProcParam page)
    {
        CustomJSONDownloadPictureObj request(page);
        return SendSysObj(page, request, "/page");
    }
};

TEST_F(SendSysObjTest, FileIsNamedAfterTheUnsignedStartIndex)
{
    EXPECT_EQ(send(page(4294967280U)), 0);
    EXPECT_EQ(pageFile("white4294967280"), "the page");
    ASSERT_EQ(m_itgt.requests().size(), 1U);
    EXPECT_EQ(textAt(m_itgt.requests()[0], 448), "white4294967280");
}

// That a page survives a power cut cannot be seen from outside; the flag that promises it can.
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
    EXPECT_EQ(send(page()), 0);
    EXPECT_EQ(flags & O_DSYNC, O_DSYNC);
    EXPECT_EQ(flags & (O_NONBLOCK | O_CLOEXEC), O_NONBLOCK | O_CLOEXEC) << "it might wait, or be inherited";
    EXPECT_EQ(found, "the page");
}

TEST_F(SendSysObjTest, NamesAreOnTheDiskTooAndThatOfTheFolderOnce)
{
    std::vector<std::string> folders;
    systemCalls().open = [&folders](const std::string& path, int flags) -> std::optional<int> {
        if (flags == (O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
            folders.push_back(path);
        }
        return std::nullopt;
    };
    EXPECT_EQ(send(page(0)), 0);
    EXPECT_EQ(send(page(30)), 0);
    const std::string folder = "/tmp/mmcblk0/face_basic/faceLib/";
    EXPECT_EQ(folders, (std::vector<std::string>{folder, folder + "..", folder}));
}

TEST_F(SendSysObjTest, UmaskAloneRestrictsFileAndFolder)
{
    umask(0);
    EXPECT_EQ(send(page()), 0);
    EXPECT_EQ(permissionsOf("/tmp/mmcblk0/face_basic/faceLib"), 0777U);
    EXPECT_EQ(permissionsOf("/tmp/mmcblk0/face_basic/faceLib/white0"), 0666U);
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
    EXPECT_TRUE(m_itgt.requests().empty());
    EXPECT_FALSE(pageFileExists("white0"));
}

TEST_F(SendSysObjTest, FileThatMayBeAPipeIsNotWritten)
{
    systemCalls().fstatFails = true;
    EXPECT_EQ(send(page()), -1);
    systemCalls().fstatFails = false;
    EXPECT_EQ(countLogged(LOG_FILE, " [Custom] download picture, open file %s error."), 1);
    EXPECT_TRUE(m_itgt.requests().empty());
}

TEST_F(SendSysObjTest, FolderThatCannotBeReadKeepsItsNamesAllTheSameAndAnyOtherFailureOfItCounts)
{
    const std::vector<std::pair<int, int>> cases = {{EACCES, 0}, {EMFILE, -1}, {ENOMEM, -1}, {EIO, -1}};
    for (const auto& [error, result] : cases) {
        systemCalls().open = [error = error](const std::string& path, int flags) -> std::optional<int> {
            if ((flags & O_DIRECTORY) == 0 || path.find("/tmp/mmcblk0") != 0) {
                return std::nullopt;
            }
            errno = error;
            return -1;
        };
        CapturedLog::clear();
        EXPECT_EQ(send(page()), result) << error;
        EXPECT_EQ(countLogged(LOG_FILE, " [Custom] download picture, write file %s error."), -result) << error;
    }
}

TEST_F(SendSysObjTest, PageThatFitsInMemoryAndNotOnTheDiskIsNone)
{
    ASSERT_NE(::signal(SIGXFSZ, SIG_IGN), SIG_ERR);
    const rlimit nothing = {0, RLIM_INFINITY};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &nothing), 0);
    EXPECT_EQ(send(page()), -1);
    const rlimit everything = {RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &everything), 0);
    EXPECT_EQ(countLogged(LOG_FILE, " [Custom] download picture, write file %s error."), 1);
    EXPECT_TRUE(m_itgt.requests().empty());
}

/** One page from its request to its report. */
class DownloadPictureProcessTest : public DownloadTest
{
protected:
    int process()
    {
        DownloadPictureProcParam first = page();
        return DownloadPictureProcess(first);
    }
};

TEST_F(DownloadPictureProcessTest, FetchesImportsAndReportsThePage)
{
    EXPECT_EQ(process(), 1);
    EXPECT_EQ(m_platform.bodies(), (std::vector<std::string>{pageRequest(0, 30), resultDocument(0, 30)}));
    EXPECT_EQ(pageFile("white0"), "the page");
    ASSERT_EQ(m_itgt.requests().size(), 3U);
    std::string importFile = requestOf("/tmp/II", 1, 7020);
    putNumber<std::uint32_t>(importFile, 208, 3);
    putText(importFile, 316, "/tmp/mmcblk0/face_basic/faceLib/");
    putText(importFile, 448, "white0");
    EXPECT_EQ(difference(importFile, m_itgt.requests()[0]), "");
    std::string progress = requestOf("/tmp/II", 0, 7021);
    putNumber<std::int64_t>(progress, 304, 4711);  // the import task that ITGT named
    EXPECT_EQ(difference(progress, m_itgt.requests()[1]), "");
    EXPECT_EQ(difference(requestOf("/tmp/II", 0, 7031), m_itgt.requests()[2]), "");
    EXPECT_EQ(firstLogged(LOG_FILE, " Notify ITGT result:%d"), " Notify ITGT result:0");
}

TEST_F(DownloadPictureProcessTest, PageThatIsRefusedIsNotImported)
{
    m_platformScript = always("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(process(), 0);
    EXPECT_TRUE(m_itgt.requests().empty());
}

TEST_F(DownloadPictureProcessTest, EndsAtTheTenthNotYetAndNoOtherAnswerCounts)
{
    // A pause waits for the interruption alone.
    systemCalls().poll = [](pollfd*, nfds_t count, int milliseconds) -> std::optional<int> {
        return count == 1 && milliseconds > 500 ? std::optional(0) : std::nullopt;
    };
    m_itgtScript = [asked = 0](const std::string& request) mutable {
        if (commandOf(request) != 7021) {
            return importAtOnce(request);
        }
        return ++asked <= 3 ? messageOf(7099) : progressReply(0, "/tmp/state.json");
    };
    EXPECT_EQ(process(), 1);
    EXPECT_EQ(m_itgt.requests(7021).size(), 13U);
    EXPECT_EQ(firstLogged(LOG_FILE, "Tried %d times, Fail!"), "Tried 10 times, Fail!");
    EXPECT_EQ(m_platform.bodies().back(), resultDocument(0, 30));
}

TEST_F(DownloadPictureProcessTest, TenthAnswerMayStillBeTheGoodOne)
{
    m_itgtScript = [asked = 0](const std::string& request) mutable {
        const bool tooEarly = commandOf(request) == 7021 && ++asked < 10;
        return tooEarly ? progressReply(0, "/tmp/early") : importAtOnce(request);
    };
    EXPECT_EQ(process(), 1);
    EXPECT_EQ(m_itgt.requests(7021).size(), 10U);
    EXPECT_EQ(countLogged(LOG_FILE, "Not Ready, try "), 9);
    EXPECT_EQ(countLogged(LOG_FILE, "Tried %d times, Fail!"), 0);
    EXPECT_EQ(m_platform.bodies().back(), resultDocument(0, 30));
}

}  // namespace
