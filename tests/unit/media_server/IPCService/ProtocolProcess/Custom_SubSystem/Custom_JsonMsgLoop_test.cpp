#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonMsgLoop.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "command_fixture.h"
#include "support/failing_allocations.h"
#include "support/system_calls.h"

using Poco::Dynamic::Var;
using Poco::JSON::Object;

namespace {

constexpr char LOG_FILE[] = "Custom_JsonMsgLoop";

class JsonMsgLoopTest : public CommandTest
{
protected:
    bool decode(const std::string& body) { return m_loop->GetJsonMsgInfo(body, m_name, m_info); }

    Var m_name;
    Object::Ptr m_info;
};

TEST_F(JsonMsgLoopTest, HasItsName)
{
    EXPECT_EQ(m_loop->name(), "Json Msg Loop");
}

TEST_F(JsonMsgLoopTest, BindsItsSocketOverAStaleFileWithMode0660)
{
    Poco::AutoPtr<IPCService::MetaDataGW::CustomJsonMsgLoop> other(
        new IPCService::MetaDataGW::CustomJsonMsgLoop(&m_subSystem));
    std::filesystem::remove("/tmp/HK");
    std::ofstream("/tmp/HK") << "stale";
    umask(0777);
    other->bind();
    struct stat status = {};
    ASSERT_EQ(lstat("/tmp/HK", &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0660U);
}

TEST_F(JsonMsgLoopTest, DecodesNameAndArguments)
{
    ASSERT_TRUE(decode(R"({"taskInfo":{"a":"b"},"taskName":"whiteListDown"})"));
    EXPECT_EQ(m_name.extract<std::string>(), "whiteListDown");
    EXPECT_EQ(m_info->getValue<std::string>("a"), "b");
    EXPECT_TRUE(loggedBy(LOG_FILE).empty());
}

TEST_F(JsonMsgLoopTest, DecodesACommandWithoutAName)
{
    ASSERT_TRUE(decode(R"({"taskInfo":{}})"));
    EXPECT_TRUE(m_name.isEmpty());
}

/** A body that is no command, and what the log says of it. */
using Undecodable = std::tuple<std::string, std::string>;

class UndecodableTest : public JsonMsgLoopTest, public testing::WithParamInterface<Undecodable>
{
};

TEST_P(UndecodableTest, IsRefusedWithALogLine)
{
    const auto& [body, reason] = GetParam();
    EXPECT_FALSE(decode(body));
    const std::string text = firstLogged(LOG_FILE, "PUBLIC_JSON Err %s ");
    EXPECT_EQ(loggedBy(LOG_FILE), std::vector<LogLine>{error("PUBLIC_JSON Err %s ", text)});
    EXPECT_NE(text.find(reason), std::string::npos) << text;
    EXPECT_GT(text.size(), std::string("PUBLIC_JSON Err  ").size());
}

INSTANTIATE_TEST_SUITE_P(
    JsonMsgLoopTest, UndecodableTest,
    testing::Values(Undecodable{"", ""}, Undecodable{"   ", ""}, Undecodable{"no json", ""}, Undecodable{"{", ""},
                    Undecodable{R"({"taskName":"whiteListDown","taskInfo":{})", ""}, Undecodable{"{}}", ""},
                    Undecodable{"[]", "Can not convert "}, Undecodable{R"([{"taskInfo":{}}])", "Can not convert "},
                    Undecodable{"null", ""}, Undecodable{"5", ""}, Undecodable{"\"text\"", ""}, Undecodable{"true", ""},
                    Undecodable{"{}", "Can not extract empty value."},
                    Undecodable{R"({"taskName":"whiteListDown"})", "Can not extract empty value."},
                    Undecodable{R"({"taskinfo":{}})", "Can not extract empty value."},
                    Undecodable{R"({"taskInfo":null})", "Can not extract empty value."},
                    Undecodable{R"({"taskInfo":"{}"})", "Can not convert "},
                    Undecodable{R"({"taskInfo":5})", "Can not convert "},
                    Undecodable{R"({"taskInfo":[]})", "Can not convert "},
                    Undecodable{R"({"taskInfo":)" + std::string(10000, '[') + std::string(10000, ']') + "}", ""},
                    Undecodable{std::string(10000, '['), ""}, Undecodable{"{\"taskInfo\":\"\xFF\xFE\"}", ""}));

TEST_F(JsonMsgLoopTest, RepliesByteForByte)
{
    m_loop->SendJsonMsg("/tmp/KH", 0xFEDCBA98, 200);
    std::string head(280, '\0');
    head.replace(0, 7, "/tmp/KH");
    head.replace(8, 7, "/tmp/HK");
    head.replace(240, 4, "\x98\xBA\xDC\xFE");
    head.replace(256, 1, "\x18");
    EXPECT_EQ(m_client.receive().value_or(""), head);
    EXPECT_EQ(m_client.sender(), "/tmp/HK");
    EXPECT_EQ(m_client.receive().value_or(""), "{\n  \"StatusCode\" : 200\n}");
    EXPECT_EQ(loggedBy(LOG_FILE), std::vector<LogLine>{replied()});
}

TEST_F(JsonMsgLoopTest, RepliesWithEachStatus)
{
    for (const int status : {200, 400, 409}) {
        m_loop->SendJsonMsg("/tmp/KH", 1, status);
        expectReply(1, status);
    }
}

TEST_F(JsonMsgLoopTest, RepliesWithoutWaitingAndWithoutASignal)
{
    std::vector<std::pair<std::size_t, int>> sent;
    systemCalls().sendTo = [&](int, std::size_t length, int flags) { sent.emplace_back(length, flags); };
    m_loop->SendJsonMsg("/tmp/KH", 1, 200);
    EXPECT_EQ(sent, (std::vector<std::pair<std::size_t, int>>{{280, 0x4040}, {24, 0x4040}}));
}

TEST_F(JsonMsgLoopTest, HeadNamesTheClientWhateverTheDestination)
{
    UnixSocket other("/tmp/other");
    m_loop->SendJsonMsg("/tmp/other", 3, 400);
    EXPECT_EQ(other.receive().value_or(""), replyHead(3));
    EXPECT_EQ(other.receive().value_or(""), replyBody(400));
    EXPECT_FALSE(m_client.hasDatagram());
}

TEST_F(JsonMsgLoopTest, MissingClientIsLoggedOnly)
{
    m_loop->SendJsonMsg("/tmp/nobody", 1, 200);
    const std::string text = firstLogged(LOG_FILE, "SendJsonMsg fail:%s.");
    EXPECT_EQ(loggedBy(LOG_FILE), std::vector<LogLine>{error("SendJsonMsg fail:%s.", text)});
    EXPECT_GT(text.size(), std::string("SendJsonMsg fail:.").size());
}

TEST_F(JsonMsgLoopTest, ReplyIsTriedThreeTimesWhereMemoryIsShort)
{
    const FailingAllocations failing(2);
    m_loop->SendJsonMsg("/tmp/KH", 4, 200);
    EXPECT_EQ(failing.left(), 0);
    expectReply(4, 200);
    EXPECT_EQ(loggedBy(LOG_FILE), std::vector<LogLine>{replied()});
}

TEST_F(JsonMsgLoopTest, ReplyWithoutMemoryIsGivenUpAndLogged)
{
    const FailingAllocations failing(3);
    m_loop->SendJsonMsg("/tmp/KH", 4, 200);
    EXPECT_EQ(failing.left(), 0);
    EXPECT_FALSE(m_client.hasDatagram());
    EXPECT_EQ(loggedBy(LOG_FILE),
              std::vector<LogLine>{error("SendJsonMsg fail:%s.", "SendJsonMsg fail:std::bad_alloc.")});
}

TEST_F(JsonMsgLoopTest, ClientThatReadsNothingIsNotWaitedFor)
{
    const Stopwatch watch;
    for (std::uint32_t tag = 0; tag < 2000; ++tag) {
        m_loop->SendJsonMsg("/tmp/KH", tag, 200);
    }
    EXPECT_LT(watch.elapsed(), atMost(std::chrono::seconds(10)));
    EXPECT_GT(countLogged(LOG_FILE, "SendJsonMsg fail:%s."), 0);
}

}  // namespace
