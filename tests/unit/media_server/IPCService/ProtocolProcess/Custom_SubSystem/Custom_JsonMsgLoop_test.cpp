#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonMsgLoop.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "command_fixture.h"
#include "support/failing_allocations.h"

namespace {

constexpr char LOG_FILE[] = "Custom_JsonMsgLoop";
constexpr char KNOWN_COMMAND[] = R"({"taskName" : "faceNotHitDown", "taskInfo" : { "b" : [1, 2], "a" : "x" }})";

class JsonMsgLoopTest : public CommandTest
{
};

TEST_F(JsonMsgLoopTest, HasItsName)
{
    EXPECT_EQ(m_loop->name(), "Json Msg Loop");
}

TEST_F(JsonMsgLoopTest, DecodesNameAndArguments)
{
    Poco::Dynamic::Var name;
    Poco::JSON::Object::Ptr info;
    ASSERT_TRUE(m_loop->GetJsonMsgInfo(R"({"taskInfo":{"a":"b"},"taskName":"whiteListDown"})", name, info));
    EXPECT_EQ(name.extract<std::string>(), "whiteListDown");
    EXPECT_EQ(info->getValue<std::string>("a"), "b");
    ASSERT_TRUE(m_loop->GetJsonMsgInfo(R"({"taskInfo":{}})", name, info));
    EXPECT_TRUE(name.isEmpty());
    EXPECT_TRUE(loggedBy(LOG_FILE).empty());
}

TEST_F(JsonMsgLoopTest, WhatIsNoJsonIsNoCommand)
{
    Poco::Dynamic::Var name;
    Poco::JSON::Object::Ptr info;
    EXPECT_FALSE(m_loop->GetJsonMsgInfo("{", name, info));
    EXPECT_EQ(countLogged(LOG_FILE, "PUBLIC_JSON Err %s "), 1);
}

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

TEST_F(JsonMsgLoopTest, HeadNamesTheClientWhateverTheDestination)
{
    UnixSocket other("/tmp/other");
    m_loop->SendJsonMsg("/tmp/other", 3, 400);
    EXPECT_EQ(other.receive().value_or(""), replyHead(3));
    EXPECT_EQ(other.receive().value_or(""), replyBody(400));
    EXPECT_FALSE(m_client.hasDatagram());
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

TEST_F(JsonMsgLoopTest, LogsAKnownCommandAndItsArguments)
{
    startLoop();
    sendCommand(1, KNOWN_COMMAND);
    expectReply(1, 200);
    EXPECT_TRUE(CapturedLog::waitForFormat("SendJsonMsg head: %d body :%d."));
    EXPECT_EQ(loggedBy(LOG_FILE),
              (std::vector<LogLine>{info("Process cmd:%s.", "Process cmd:faceNotHitDown."),
                                    info("Process info:%s.", R"(Process info:{"a":"x","b":[1,2]}.)"), replied()}));
}

TEST_F(JsonMsgLoopTest, WhatIsAlmostANameIsNone)
{
    startLoop();
    for (const std::string& name :
         {std::string(R"("faceNotHitDow")"), std::string(R"("whiteListDown\u0000")"), std::string("{}"),
          std::string(R"(["faceNotHitDown"])"), '"' + std::string(100000, 'n') + '"'}) {
        sendCommand(17, R"({"taskName":)" + name + R"(,"taskInfo":{}})");
        expectReply(17, 400);
        sendCommand(18, KNOWN_COMMAND);
        expectReply(18, 200);
    }
}

TEST_F(JsonMsgLoopTest, HeadThatCannotBeTakenIsAnsweredUnderTagZero)
{
    failReceives({1});
    sendDatagram(head(0x01010101, 2));
    startLoop();
    EXPECT_TRUE(CapturedLog::waitForFormat("SendJsonMsg head: %d body :%d."));
    EXPECT_EQ(countLogged(LOG_FILE, "receiveBytes fail:%s."), 1);
    expectReply(0, 400);
    sendDatagram("{}");
    expectReply(0x01010101, 400);
}

TEST_F(JsonMsgLoopTest, CancelBeforeItRunsEndsItAtOnce)
{
    m_loop->cancel();
    EXPECT_TRUE(m_loop->isCancelled());
    m_loop->runTask();
}

}  // namespace
