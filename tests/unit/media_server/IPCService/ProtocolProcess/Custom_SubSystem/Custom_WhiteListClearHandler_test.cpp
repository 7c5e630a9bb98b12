#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "clear_fixture.h"

namespace {

constexpr char LOG_FILE[] = "Custom_JsonMsgLoop";

class WhiteListClearTest : public ClearTest
{
};

TEST_F(WhiteListClearTest, AsksForTheClearByteForByte)
{
    EXPECT_EQ(handleLists(""), 1);
    ASSERT_EQ(m_library.requests().size(), 1U);
    EXPECT_EQ(difference(requestOf("/tmp/A", 0, 7019), m_library.requests()[0]), "");
}

TEST_F(WhiteListClearTest, SetsAFaceListByteForByte)
{
    EXPECT_EQ(handleLists(list("5", R"("staff")", "1", "80", "2")), 1);
    expectReply(33, 200);
    ASSERT_EQ(settings().size(), 1U);
    EXPECT_EQ(difference(listRequest(5, 2, 1, 80, "staff"), settings()[0]), "");
}

TEST_F(WhiteListClearTest, SetsEachFaceListInOrder)
{
    handleLists(list("1", R"("a")", "0", "10", "1") + "," + list("2", R"("b")", "1", "20", "2") + "," +
                list("3", R"("c")", "0", "30", "3"));
    expectReply(33, 200);
    ASSERT_EQ(settings().size(), 3U);
    EXPECT_EQ(difference(listRequest(1, 1, 0, 10, "a"), settings()[0]), "");
    EXPECT_EQ(difference(listRequest(2, 2, 1, 20, "b"), settings()[1]), "");
    EXPECT_EQ(difference(listRequest(3, 3, 0, 30, "c"), settings()[2]), "");
}

TEST_F(WhiteListClearTest, LogsEachStepWithItsLine)
{
    handleLists(list("5", R"("staff")") + "," + list("6", R"("guests")"));
    const std::string format = "CMD_ALARM_FACE_LIB_SET TaskID:%lld FaceListName %s";
    EXPECT_EQ(
        loggedBy(LOG_FILE),
        (std::vector<LogLine>{
            at(290, info("cameraCode:%s", "cameraCode:C1")),
            at(306, info(" [Custom] download picture file %s.", " [Custom] download picture file /tmp/config.json.")),
            at(407, info(format, "CMD_ALARM_FACE_LIB_SET TaskID:5 FaceListName staff")),
            at(407, info(format, "CMD_ALARM_FACE_LIB_SET TaskID:6 FaceListName guests")),
            replied(),
        }));
}

TEST_F(WhiteListClearTest, NumbersHaveTheirWidthsAndSigns)
{
    handleLists(list("18446744073709551615", R"("n")", "-2147483648", "-5000000000", "2147483647"));
    expectReply(33, 200);
    ASSERT_EQ(settings().size(), 1U);
    EXPECT_EQ(
        difference(listRequest(18446744073709551615U, 2147483647, -2147483647 - 1, -5000000000, "n"), settings()[0]),
        "");
}

TEST_F(WhiteListClearTest, NumbersMayBeGivenAsText)
{
    handleLists(list(R"("7")", R"("n")", R"("-1")", R"("80")", R"("3")"));
    expectReply(33, 200);
    ASSERT_EQ(settings().size(), 1U);
    EXPECT_EQ(difference(listRequest(7, 3, -1, 80, "n"), settings()[0]), "");
}

TEST_F(WhiteListClearTest, NameMayBeGivenAsANumber)
{
    handleLists(list("7", "123"));
    ASSERT_EQ(settings().size(), 1U);
    EXPECT_EQ(difference(listRequest(7, 2, 1, 80, "123"), settings()[0]), "");
}

TEST_F(WhiteListClearTest, NameOf64CharactersFits)
{
    const std::string name(64, 'n');
    handleLists(list("1", "\"" + name + "\""));
    ASSERT_EQ(settings().size(), 1U);
    EXPECT_EQ(difference(listRequest(1, 2, 1, 80, name), settings()[0]), "");
}

TEST_F(WhiteListClearTest, NameOf65CharactersIsLeftEmptyAndSentAllTheSame)
{
    for (const std::size_t length : {std::size_t{65}, std::size_t{66}, std::size_t{100000}}) {
        const std::size_t before = settings().size();
        const std::string name(length, 'n');
        EXPECT_EQ(handleLists(list("1", "\"" + name + "\"")), 1);
        expectReply(33, 200);
        ASSERT_EQ(settings().size(), before + 1);
        EXPECT_EQ(settings().back()[240], '\0');
        EXPECT_EQ(difference(listRequest(1, 2, 1, 80, "").substr(305), settings().back().substr(305)), "");
        EXPECT_EQ(firstLogged(LOG_FILE, "CMD_ALARM_FACE_LIB_SET TaskID:%lld FaceListName %s"),
                  "CMD_ALARM_FACE_LIB_SET TaskID:1 FaceListName " + name);
    }
}

TEST_F(WhiteListClearTest, ShortNameLeavesNothingOfALongerOneBefore)
{
    handleLists(list("1", "\"" + std::string(64, 'n') + "\"") + "," + list("2", R"("b")"));
    ASSERT_EQ(settings().size(), 2U);
    EXPECT_EQ(textAt(settings()[1], 240), "b");
}

TEST_F(WhiteListClearTest, LaterListsCarryTheHeaderOfTheReplyBeforeThem)
{
    ScriptedPeer elsewhere("/tmp/B", [](const std::string& request) { return request; });
    std::string reply(MESSAGE_BYTES, 'R');
    putText(reply, 0, bytes("/tmp/B\0"));
    m_libraryScript = [&](const std::string& request) {
        return commandOf(request) == 7019 ? clearReply(0, m_configPath) : reply;
    };
    EXPECT_EQ(handleLists(list("1", R"("a")") + "," + list("2", R"("b")", "3", "4", "5")), 1);
    expectReply(33, 200);
    ASSERT_EQ(settings().size(), 1U);
    std::string expected = reply;
    putNumber<std::uint64_t>(expected, 216, 2);
    putNumber<std::int32_t>(expected, 224, 5);
    putNumber<std::int32_t>(expected, 228, 3);
    putNumber<std::int64_t>(expected, 232, 4);
    ASSERT_EQ(elsewhere.requests().size(), 1U);
    const std::string sent = elsewhere.requests()[0];
    EXPECT_EQ(difference(expected.substr(0, 240), sent.substr(0, 240)), "");
    EXPECT_EQ(textAt(sent, 240), "b");
    EXPECT_EQ(difference(expected.substr(305), sent.substr(305)), "");
}

TEST_F(WhiteListClearTest, ReplyToASettingIsNotChecked)
{
    m_libraryScript = [&](const std::string& request) {
        if (commandOf(request) == 7019) {
            return clearReply(0, m_configPath);
        }
        std::string reply = request;
        putNumber<std::uint32_t>(reply, 164, 1);
        putNumber<std::uint32_t>(reply, 176, 1);
        return reply;
    };
    EXPECT_EQ(handleLists(list("1", R"("a")")), 1);
    expectReply(33, 200);
}

TEST_F(WhiteListClearTest, NoFaceListsAreDoneAtOnce)
{
    EXPECT_EQ(handleLists(""), 1);
    expectReply(33, 200);
    EXPECT_TRUE(settings().empty());
}

TEST_F(WhiteListClearTest, OtherMembersAreIgnored)
{
    EXPECT_EQ(handle(R"({"More":[1],"FaceListsArry":[{"X":{},"ID":1,"FaceListName":"a","OnControl":0,"Threshold":0,)"
                     R"("FaceListType":0,"Y":null}]})"),
              1);
    ASSERT_EQ(settings().size(), 1U);
    EXPECT_EQ(difference(listRequest(1, 0, 0, 0, "a"), settings()[0]), "");
}

TEST_F(WhiteListClearTest, ConfigurationEndsAtItsFirstNul)
{
    EXPECT_EQ(handle(std::string(R"({"FaceListsArry":[]})") + bytes("\0garbage")), 1);
    expectReply(33, 200);
}

TEST_F(WhiteListClearTest, ConfigurationIsOnlyRead)
{
    handleLists(list("1", R"("a")"));
    std::ifstream file("/tmp/config.json");
    std::string text;
    std::getline(file, text);
    EXPECT_EQ(text, R"({"FaceListsArry":[)" + list("1", R"("a")") + "]}");
}

TEST_F(WhiteListClearTest, CameraCodeMayBeAnyScalar)
{
    handleArguments(R"({"cameraCode":42})");
    EXPECT_EQ(firstLogged(LOG_FILE, "cameraCode:%s"), "cameraCode:42");
    handleArguments(R"({"cameraCode":true})");
    EXPECT_EQ(firstLogged(LOG_FILE, "cameraCode:%s"), "cameraCode:true");
}

TEST_F(WhiteListClearTest, SocketIsBoundOverAStaleFileWithMode0660)
{
    std::ofstream("/tmp/CP") << "stale";
    mode_t mode = 0;
    m_libraryScript = [&](const std::string&) {
        struct stat status = {};
        EXPECT_EQ(lstat("/tmp/CP", &status), 0);
        mode = status.st_mode;
        return clearReply(0, m_configPath);
    };
    handleLists("");
    EXPECT_TRUE(S_ISSOCK(mode));
    EXPECT_EQ(mode & 07777, 0660U);
}

}  // namespace
