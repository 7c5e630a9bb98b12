#include <Poco/Exception.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "clear_fixture.h"
#include "support/system_calls.h"

namespace {

constexpr char LOG_FILE[] = "Custom_JsonMsgLoop";

class ClearFailureTest : public ClearTest
{
protected:
    /** The command failed: answered with 400 first, then logged with this line, which is the last. */
    void expectFailure(int result, const LogLine& line)
    {
        EXPECT_EQ(result, 0);
        expectReply(33, 400);
        EXPECT_FALSE(m_client.hasDatagram());
        const std::vector<LogLine> lines = loggedBy(LOG_FILE);
        ASSERT_GE(lines.size(), 4U);
        EXPECT_EQ(lines[0], at(290, info("cameraCode:%s", "cameraCode:C1")));
        EXPECT_EQ(lines[1], at(306, info(" [Custom] download picture file %s.",
                                         " [Custom] download picture file " + m_configPath + ".")));
        EXPECT_EQ(lines[lines.size() - 2], replied());
        EXPECT_EQ(lines.back(), line);
    }

    void expectParserError(int result)
    {
        const std::string text = firstLogged(LOG_FILE, "parser Err %s ");
        EXPECT_GT(text.size(), std::string("parser Err  ").size());
        expectFailure(result, at(357, error("parser Err %s ", text)));
        EXPECT_TRUE(settings().empty());
    }

    /** The peer refused: no reply, and no line after the one of the camera code. */
    void expectNoReply(int result)
    {
        EXPECT_EQ(result, 1);
        EXPECT_FALSE(m_client.hasDatagram());
        EXPECT_EQ(loggedBy(LOG_FILE), std::vector<LogLine>{at(290, info("cameraCode:%s", "cameraCode:C1"))});
        EXPECT_TRUE(settings().empty());
    }
};

TEST_F(ClearFailureTest, PeerThatRefusesLeavesTheCommandWithoutAReply)
{
    for (const std::uint32_t status : {1U, 0x100U, 0x80000000U, 0xFFFFFFFFU}) {
        m_libraryScript = [&](const std::string&) { return clearReply(status, m_configPath); };
        expectNoReply(handleLists(""));
    }
}

TEST_F(ClearFailureTest, ReplyToAnotherCommandLeavesTheCommandWithoutAReply)
{
    m_libraryScript = [&](const std::string&) {
        std::string reply = clearReply(0, m_configPath);
        putNumber<std::uint32_t>(reply, 164, 7018);
        return reply;
    };
    expectNoReply(handleLists(""));
}

TEST_F(ClearFailureTest, CommandIsServedAgainAfterARefusal)
{
    m_libraryScript = [&](const std::string&) { return clearReply(1, m_configPath); };
    handleLists("");
    m_libraryScript = [&](const std::string&) { return clearReply(0, m_configPath); };
    EXPECT_EQ(handleLists(""), 1);
    expectReply(33, 200);
}

TEST_F(ClearFailureTest, ConfigurationIsMissing)
{
    m_configPath = "/tmp/no/such/file";
    expectFailure(handleLists(""), at(311, error(" [Custom] download picture, open file %s error.",
                                                 " [Custom] download picture, open file /tmp/no/such/file error.")));
}

TEST_F(ClearFailureTest, PathIsEmpty)
{
    m_configPath = "";
    expectFailure(handleLists(""), at(311, error(" [Custom] download picture, open file %s error.",
                                                 " [Custom] download picture, open file  error.")));
}

TEST_F(ClearFailureTest, PathWithoutItsEndStopsAtTheEndOfTheMessage)
{
    m_configPath = std::string(MESSAGE_BYTES - 216, 'p');
    expectFailure(handleLists(""), at(311, error(" [Custom] download picture, open file %s error.",
                                                 " [Custom] download picture, open file " + m_configPath + " error.")));
}

TEST_F(ClearFailureTest, SizeIsNotToBeHad)
{
    systemCalls().fstatFails = true;
    expectFailure(handleLists(""), at(320, error(" state file %s error.", " state file /tmp/config.json error.")));
}

TEST_F(ClearFailureTest, MemoryIsNotToBeHad)
{
    systemCalls().largestArray = 1000;
    expectFailure(handle(std::string(1000, ' ')), at(329, error(" malloc pJsonConfig error.")));
}

TEST_F(ClearFailureTest, ConfigurationIsADirectory)
{
    m_configPath = "/tmp/folder";
    ASSERT_EQ(mkdir("/tmp/folder", 0755), 0);
    expectFailure(handleLists(""), at(337, error(" fread pJsonConfig error.")));
}

TEST_F(ClearFailureTest, ConfigurationHas4Gigabytes)
{
    m_configPath = "/tmp/huge";
    std::ofstream("/tmp/huge").put('{');
    ASSERT_EQ(truncate("/tmp/huge", 1LL << 32), 0);
    expectFailure(handleLists(""), at(337, error(" fread pJsonConfig error.")));
}

class NoConfigurationTest : public ClearFailureTest, public testing::WithParamInterface<std::string>
{
};

TEST_P(NoConfigurationTest, IsAParserError)
{
    expectParserError(handle(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(ClearFailureTest, NoConfigurationTest,
                         testing::Values("{", "no json", R"({"FaceListsArry":[})", R"({"FaceListsArry":[]}x)",
                                         std::string(10000, '['), "{\"FaceListsArry\":\"\xFF\"}"));

/** Lists that cannot be set, behind one that can, and why. */
struct BadLists
{
    std::string lists;
    std::string reason;
};

class BadListsTest : public ClearFailureTest, public testing::WithParamInterface<BadLists>
{
};

TEST_P(BadListsTest, EndTheCommandAfterTheGoodOnesBefore)
{
    const int result = handleLists(list("1", R"("a")") + "," + GetParam().lists + "," + list("3", R"("c")"));
    const std::string text = firstLogged(LOG_FILE, "facelist_ary parser Err %s ");
    EXPECT_NE(text.find(GetParam().reason), std::string::npos) << text;
    expectFailure(result, at(416, error("facelist_ary parser Err %s ", text)));
    ASSERT_EQ(settings().size(), 1U);
    EXPECT_EQ(difference(listRequest(1, 2, 1, 80, "a"), settings()[0]), "");
}

const std::string EMPTY_VALUE = " empty value. ";

INSTANTIATE_TEST_SUITE_P(
    ClearFailureTest, BadListsTest,
    testing::Values(BadLists{"5", "Can not convert "}, BadLists{R"("text")", "Can not convert "},
                    BadLists{"[]", "Can not convert "}, BadLists{"null", EMPTY_VALUE}, BadLists{"{}", EMPTY_VALUE},
                    BadLists{R"({"FaceListName":"b","OnControl":1,"Threshold":80,"FaceListType":2})", EMPTY_VALUE},
                    BadLists{R"({"ID":2,"OnControl":1,"Threshold":80,"FaceListType":2})", EMPTY_VALUE},
                    BadLists{R"({"ID":2,"FaceListName":"b","Threshold":80,"FaceListType":2})", EMPTY_VALUE},
                    BadLists{R"({"ID":2,"FaceListName":"b","OnControl":1,"FaceListType":2})", EMPTY_VALUE},
                    BadLists{R"({"ID":2,"FaceListName":"b","OnControl":1,"Threshold":80})", EMPTY_VALUE},
                    BadLists{list("-1", R"("b")"), ""}, BadLists{list(R"("x")", R"("b")"), ""},
                    BadLists{list("{}", R"("b")"), ""}, BadLists{list("null", R"("b")"), EMPTY_VALUE},
                    BadLists{list("2", "null"), EMPTY_VALUE}, BadLists{list("2", R"("b")", "2147483648"), ""},
                    BadLists{list("2", R"("b")", "1", R"("x")"), ""},
                    BadLists{list("2", R"("b")", "1", "80", R"("")"), ""},
                    // Members are read in the order ID, FaceListName, OnControl, Threshold, FaceListType: the first
                    // that is wrong decides what is said.
                    BadLists{R"({"ID":"x"})", "yntax"}, BadLists{R"({"ID":2,"OnControl":"x"})", EMPTY_VALUE},
                    BadLists{R"({"ID":2,"FaceListName":"b","OnControl":"x"})", "yntax"},
                    BadLists{R"({"ID":2,"FaceListName":"b","OnControl":1,"FaceListType":"x"})", EMPTY_VALUE},
                    BadLists{R"({"ID":2,"FaceListName":"b","OnControl":1,"Threshold":"x"})", "yntax"}));

class WrongArrayTest : public ClearFailureTest, public testing::WithParamInterface<const char*>
{
};

TEST_P(WrongArrayTest, IsNoListOfFaceLists)
{
    const int result = handle(GetParam());
    const std::string text = firstLogged(LOG_FILE, "facelist_ary parser Err %s ");
    EXPECT_GT(text.size(), std::string("facelist_ary parser Err  ").size());
    expectFailure(result, at(416, error("facelist_ary parser Err %s ", text)));
    EXPECT_TRUE(settings().empty());
}

INSTANTIATE_TEST_SUITE_P(ClearFailureTest, WrongArrayTest,
                         testing::Values("{}", R"({"FaceListsArray":[]})", R"({"FaceListsArry":null})",
                                         R"({"FaceListsArry":{}})", R"({"FaceListsArry":"[]"})", "[]"));

TEST_F(ClearFailureTest, MissingCameraCodeLeavesTheHandler)
{
    EXPECT_THROW(handleArguments("{}"), Poco::Exception);
    EXPECT_FALSE(m_client.hasDatagram());
    EXPECT_TRUE(m_library.requests().empty());
}

TEST_F(ClearFailureTest, MissingArgumentsLeaveTheHandlerAsANullPointer)
{
    Poco::JSON::Object::Ptr nothing;
    std::uint32_t tag = 1;
    EXPECT_THROW(m_loop->WhiteListClearHandler(nothing, tag), Poco::NullPointerException);
}

TEST_F(ClearFailureTest, SocketThatCannotBeBoundLeavesTheHandler)
{
    std::filesystem::create_directories("/tmp/CP/in the way");
    EXPECT_THROW(handleLists(""), Poco::Exception);
    EXPECT_TRUE(m_library.requests().empty());
}

/** Without a face-library process. */
class MissingPeerTest : public CommandTest
{
};

TEST_F(MissingPeerTest, IsWaitedForAndTheNextCommandIsServedAfterwards)
{
    startLoop();
    sendCommand(1, R"({"taskName":"whiteListClear","taskInfo":{"cameraCode":"C1"}})");
    EXPECT_TRUE(CapturedLog::waitForFormat("sendTo fail:%s."));
    sendCommand(2, R"({"taskName":"faceNotHitDown","taskInfo":{}})");
    EXPECT_FALSE(m_client.hasDatagram());
    const ScriptedPeer back("/tmp/A", [](const std::string& request) { return request; });
    expectReply(1, 400);
    EXPECT_TRUE(CapturedLog::waitForFormat(" [Custom] download picture, open file %s error."));
    expectReply(2, 200);
    EXPECT_EQ(CapturedLog::withFormat("sendTo fail:%s.").size(), 1U);
}

/** A face-library process that never answers. */
TEST_F(MissingPeerTest, SilentOneIsLeftWithinASecondWhenTheLoopIsCancelled)
{
    const ScriptedPeer silent("/tmp/A", [](const std::string&) { return ""; });
    startLoop();
    sendCommand(1, R"({"taskName":"whiteListClear","taskInfo":{"cameraCode":"C1"}})");
    EXPECT_TRUE(silent.waitFor(1));
    const Stopwatch watch;
    m_loop->cancel();
    EXPECT_TRUE(eventually([this] { return m_loop->state() == Poco::Task::TASK_FINISHED; }));
    EXPECT_LT(watch.elapsed(), atMost(std::chrono::seconds(1)));
    EXPECT_FALSE(m_client.hasDatagram());
}

}  // namespace
