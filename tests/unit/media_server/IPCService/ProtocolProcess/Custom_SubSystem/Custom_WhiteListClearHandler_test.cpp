#include <Poco/Exception.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "command_fixture.h"
#include "support/exchange_messages.h"
#include "support/scripted_peer.h"
#include "support/system_calls.h"

namespace {

constexpr char LOG_FILE[] = "Custom_JsonMsgLoop";

/** The face-library process's answer to a clear request, with the configuration it hands out. */
std::string clearReply(std::uint32_t status, const std::string& configPath)
{
    std::string reply = messageOf(7019);
    putNumber<std::uint32_t>(reply, 176, status);
    putText(reply, 216, configPath);
    return reply;
}

/** A face-list setting as it must be on the wire. */
std::string listRequest(std::uint64_t id, std::int32_t type, std::int32_t onControl, std::int64_t threshold,
                        const std::string& name)
{
    std::string message = requestOf("/tmp/A", 1, 7018);
    putNumber<std::uint32_t>(message, 208, 3);
    putNumber<std::uint64_t>(message, 216, id);
    putNumber<std::int32_t>(message, 224, type);
    putNumber<std::int32_t>(message, 228, onControl);
    putNumber<std::int64_t>(message, 232, threshold);
    putText(message, 240, name);
    return message;
}

constexpr char STAFF[] = R"({"ID":5,"FaceListName":"staff","OnControl":1,"Threshold":80,"FaceListType":2})";

/** The whiteListClear command. The face-library process accepts it and sends every setting back unchanged, unless a
    test says otherwise before it begins. */
class WhiteListClearTest : public CommandTest
{
protected:
    /** Handles a command whose configuration file has that text. @return what the handler returns */
    int handle(const std::string& config)
    {
        std::ofstream(m_configPath, std::ios::binary) << config;
        auto info = arguments(R"({"cameraCode":"C1"})");
        CapturedLog::clear();
        std::uint32_t tag = 33;
        return m_loop->WhiteListClearHandler(info, tag);
    }

    int handleLists(const std::string& lists) { return handle(R"({"FaceListsArry":[)" + lists + "]}"); }

    /** The command failed: answered with 400 first, then logged with this line, which is the last. */
    void expectFailure(int result, const LogLine& line)
    {
        EXPECT_EQ(result, 0);
        expectReply(33, 400);
        const std::vector<LogLine> lines = loggedBy(LOG_FILE);
        ASSERT_GE(lines.size(), 2U);
        EXPECT_EQ(lines[lines.size() - 2], replied());
        EXPECT_EQ(lines.back(), line);
    }

    const std::string m_configPath = "/tmp/config.json";
    std::uint32_t m_status = 0;
    ScriptedPeer m_library{"/tmp/A", [this](const std::string& request) {
                               return commandOf(request) == 7019 ? clearReply(m_status, m_configPath) : request;
                           }};
};

TEST_F(WhiteListClearTest, ClearsAndSetsEachFaceListInOrderByteForByte)
{
    EXPECT_EQ(
        handleLists(STAFF + std::string(R"(,{"ID":18446744073709551615,"FaceListName":"g","OnControl":-2147483648)"
                                        R"(,"Threshold":"-5000000000","FaceListType":2147483647})")),
        1);
    expectReply(33, 200);
    ASSERT_EQ(m_library.requests().size(), 3U);
    EXPECT_EQ(difference(requestOf("/tmp/A", 0, 7019), m_library.requests()[0]), "");
    EXPECT_EQ(difference(listRequest(5, 2, 1, 80, "staff"), m_library.requests()[1]), "");
    EXPECT_EQ(difference(listRequest(18446744073709551615U, 2147483647, -2147483647 - 1, -5000000000, "g"),
                         m_library.requests()[2]),
              "");
    const std::string format = "CMD_ALARM_FACE_LIB_SET TaskID:%lld FaceListName %s";
    EXPECT_EQ(
        loggedBy(LOG_FILE),
        (std::vector<LogLine>{
            at(290, info("cameraCode:%s", "cameraCode:C1")),
            at(306, info(" [Custom] download picture file %s.", " [Custom] download picture file /tmp/config.json.")),
            at(407, info(format, "CMD_ALARM_FACE_LIB_SET TaskID:5 FaceListName staff")),
            at(407, info(format, "CMD_ALARM_FACE_LIB_SET TaskID:-1 FaceListName g")),
            replied(),
        }));
}

TEST_F(WhiteListClearTest, RefusedOneHasNoReplyAndTheNextIsServed)
{
    m_status = 0x100;
    EXPECT_EQ(handleLists(STAFF), 1);
    EXPECT_FALSE(m_client.hasDatagram());
    EXPECT_EQ(loggedBy(LOG_FILE), std::vector<LogLine>{at(290, info("cameraCode:%s", "cameraCode:C1"))});
    EXPECT_TRUE(m_library.requests(7018).empty());
    m_status = 0;
    EXPECT_EQ(handleLists(STAFF), 1);
    expectReply(33, 200);
}

TEST_F(WhiteListClearTest, ConfigurationIsNotThere)
{
    Poco::JSON::Object::Ptr info = arguments(R"({"cameraCode":"C1"})");
    std::uint32_t tag = 33;
    ::unlink(m_configPath.c_str());
    expectFailure(m_loop->WhiteListClearHandler(info, tag),
                  at(311, error(" [Custom] download picture, open file %s error.",
                                " [Custom] download picture, open file /tmp/config.json error.")));
}

TEST_F(WhiteListClearTest, ConfigurationIsNoJson)
{
    const int result = handle("{");
    const std::string text = firstLogged(LOG_FILE, "parser Err %s ");
    expectFailure(result, at(357, error("parser Err %s ", text)));
}

TEST_F(WhiteListClearTest, SizeIsNotToBeHad)
{
    systemCalls().fstatFails = true;
    expectFailure(handleLists(""), at(320, error(" state file %s error.", " state file /tmp/config.json error.")));
}

TEST_F(WhiteListClearTest, MemoryIsNotToBeHad)
{
    systemCalls().largestArray = 1000;
    expectFailure(handle(std::string(1000, ' ')), at(329, error(" malloc pJsonConfig error.")));
}

TEST_F(WhiteListClearTest, ConfigurationHas4Gigabytes)
{
    std::ofstream(m_configPath).put('{');
    ASSERT_EQ(truncate(m_configPath.c_str(), 1LL << 32), 0);
    Poco::JSON::Object::Ptr info = arguments(R"({"cameraCode":"C1"})");
    std::uint32_t tag = 33;
    expectFailure(m_loop->WhiteListClearHandler(info, tag), at(337, error(" fread pJsonConfig error.")));
}

// Members are read in the order ID, FaceListName, OnControl, Threshold, FaceListType: the first that is wrong decides
// what is said.
TEST_F(WhiteListClearTest, FirstWrongMemberInTheOrderOfReadingIsNamed)
{
    const std::string missing = " empty value. ";
    const std::string noNumber = "yntax";
    const std::pair<std::string, std::string> rows[] = {
        {R"({"ID":"x"})", noNumber},
        {R"({"ID":2,"OnControl":"x"})", missing},
        {R"({"ID":2,"FaceListName":"b","OnControl":"x"})", noNumber},
        {R"({"ID":2,"FaceListName":"b","OnControl":1,"FaceListType":"x"})", missing},
        {R"({"ID":2,"FaceListName":"b","OnControl":1,"Threshold":"x"})", noNumber},
    };
    for (const auto& [list, reason] : rows) {
        SCOPED_TRACE(list);
        const int result = handleLists(list);
        const std::string text = firstLogged(LOG_FILE, "facelist_ary parser Err %s ");
        EXPECT_NE(text.find(reason), std::string::npos) << text;
        expectFailure(result, at(416, error("facelist_ary parser Err %s ", text)));
    }
    EXPECT_TRUE(m_library.requests(7018).empty());
}

TEST_F(WhiteListClearTest, MissingArgumentsLeaveTheHandlerAsANullPointer)
{
    Poco::JSON::Object::Ptr nothing;
    std::uint32_t tag = 1;
    EXPECT_THROW(m_loop->WhiteListClearHandler(nothing, tag), Poco::NullPointerException);
}

}  // namespace
