#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "command_fixture.h"
#include "no_free_descriptor.h"

namespace {

constexpr char LOG_FILE[] = "Custom_JsonMsgLoop";

/** The running loop, seen by its client. */
class ServeCommandTest : public CommandTest
{
protected:
    ServeCommandTest() { startLoop(); }

    /** Sends a body and expects it to be answered with 400 under its tag, and the loop to go on. */
    void expectRefused(const std::string& body)
    {
        sendCommand(17, body);
        expectReply(17, 400);
        sendCommand(18, R"({"taskName":"faceNotHitDown","taskInfo":{}})");
        expectReply(18, 200);
    }
};

/** Whether some thread of this process has that name. */
bool threadIsNamed(const std::string& name)
{
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(thread.path() / "comm");
        std::string line;
        std::getline(file, line);
        if (line == name) {
            return true;
        }
    }
    return false;
}

TEST_F(ServeCommandTest, RunsOnAThreadWithItsName)
{
    EXPECT_TRUE(eventually([] { return threadIsNamed("Json Msg Loop"); }));
}

TEST_F(ServeCommandTest, LogsAKnownCommandAndItsArguments)
{
    sendCommand(1, R"({"taskName" : "faceNotHitDown", "taskInfo" : { "b" : [1, 2], "a" : "x" }})");
    expectReply(1, 200);
    EXPECT_TRUE(CapturedLog::waitForFormat("SendJsonMsg head: %d body :%d."));
    EXPECT_EQ(loggedBy(LOG_FILE),
              (std::vector<LogLine>{info("Process cmd:%s.", "Process cmd:faceNotHitDown."),
                                    info("Process info:%s.", R"(Process info:{"a":"x","b":[1,2]}.)"), replied()}));
}

TEST_F(ServeCommandTest, UnknownCommandIsAnsweredAndThenLogged)
{
    sendCommand(2, R"({"taskName":"whitelistdown","taskInfo":{}})");
    expectReply(2, 400);
    EXPECT_TRUE(CapturedLog::waitForFormat("Process cmd:%s  not supported ."));
    EXPECT_EQ(loggedBy(LOG_FILE),
              (std::vector<LogLine>{
                  info("Process cmd:%s.", "Process cmd:whitelistdown."), info("Process info:%s.", "Process info:{}."),
                  replied(), info("Process cmd:%s  not supported .", "Process cmd:whitelistdown  not supported .")}));
}

TEST_F(ServeCommandTest, UndecodableBodyIsLoggedTwiceAndAnswered)
{
    sendCommand(3, "[]");
    expectReply(3, 400);
    EXPECT_TRUE(CapturedLog::waitForFormat("SendJsonMsg head: %d body :%d."));
    const std::string reason = firstLogged(LOG_FILE, "PUBLIC_JSON Err %s ");
    EXPECT_EQ(loggedBy(LOG_FILE),
              (std::vector<LogLine>{error("PUBLIC_JSON Err %s ", reason), info("GetJsonMsgInfo err:."), replied()}));
}

TEST_F(ServeCommandTest, CommandWithoutANameIsAnException)
{
    sendCommand(4, R"({"taskInfo":{}})");
    expectReply(4, 400);
    EXPECT_TRUE(CapturedLog::waitForFormat("SendJsonMsg head: %d body :%d."));
    const std::string reason = firstLogged(LOG_FILE, "PUBLIC_JSON Err %s ");
    EXPECT_NE(reason.find("Can not extract empty value."), std::string::npos) << reason;
    EXPECT_EQ(loggedBy(LOG_FILE), (std::vector<LogLine>{error("PUBLIC_JSON Err %s ", reason), replied()}));
}

TEST_F(ServeCommandTest, NumberAsANameIsItsText)
{
    sendCommand(5, R"({"taskName":42,"taskInfo":{}})");
    expectReply(5, 400);
    EXPECT_TRUE(CapturedLog::waitForText("Process cmd:42  not supported ."));
}

TEST_F(ServeCommandTest, ExceptionOfAHandlerIsLoggedAndAnswered)
{
    sendCommand(6, R"({"taskName":"whiteListClear","taskInfo":{}})");
    expectReply(6, 400);
    EXPECT_TRUE(CapturedLog::waitForFormat("PUBLIC_JSON Err %s "));
    EXPECT_EQ(CapturedLog::withFormat("PUBLIC_JSON Err %s ")[0].level, 3);
}

class RefusedBodyTest : public ServeCommandTest, public testing::WithParamInterface<std::string>
{
};

TEST_P(RefusedBodyTest, IsAnsweredWith400AndTheLoopGoesOn)
{
    expectRefused(GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    ServeCommandTest, RefusedBodyTest,
    testing::Values("", "{", "null", "7", R"({"taskName":"whiteListDown"})",
                    R"({"taskName":"whiteListDown","taskInfo":"text"})", R"({"taskName":null,"taskInfo":{}})",
                    R"({"taskName":"","taskInfo":{}})", R"({"taskName":true,"taskInfo":{}})",
                    R"({"taskName":{},"taskInfo":{}})", R"({"taskName":["whiteListDown"],"taskInfo":{}})",
                    R"({"taskName":"WHITELISTDOWN","taskInfo":{}})", R"({"taskName":"whiteListDown ","taskInfo":{}})",
                    R"({"taskName":"faceNotHitDow","taskInfo":{}})",
                    R"({"taskName":"whiteListDown\u0000","taskInfo":{}})",
                    R"({"taskName":"x","taskInfo":{"deep":)" + std::string(10000, '[') + std::string(10000, ']') + "}}",
                    "{\"taskName\":\"\xFF\xC0\x80\",\"taskInfo\":{}}", std::string(150000, '{'),
                    R"({"taskName":")" + std::string(100000, 'n') + R"(","taskInfo":{}})"));

TEST_F(ServeCommandTest, EmptyBodyIsAnsweredUnderItsTag)
{
    sendDatagram(head(19, 0));
    sendDatagram("");
    expectReply(19, 400);
    EXPECT_EQ(countLogged(LOG_FILE, "PUBLIC_JSON Err %s "), 1);
}

TEST_F(ServeCommandTest, CommandsAreAnsweredInTheOrderOfTheirArrival)
{
    for (std::uint32_t tag = 1; tag <= 4; ++tag) {
        sendCommand(tag, tag % 2 == 0 ? "no json" : R"({"taskName":"faceNotHitDown","taskInfo":{}})");
    }
    for (std::uint32_t tag = 1; tag <= 4; ++tag) {
        expectReply(tag, tag % 2 == 0 ? 400 : 200);
    }
}

TEST_F(ServeCommandTest, GoesOnWhenNoDescriptorIsFree)
{
    {
        const NoFreeDescriptor none;
        sendCommand(1, R"({"taskName":"whiteListClear","taskInfo":{"cameraCode":"C1"}})");
        expectReply(1, 400);
        sendCommand(2, R"({"taskName":"faceNotHitDown","taskInfo":{}})");
        expectReply(2, 200);
    }
    sendCommand(3, R"({"taskName":"faceNotHitDown","taskInfo":{}})");
    expectReply(3, 200);
}

TEST_F(ServeCommandTest, CancelEndsItWithinASecond)
{
    EXPECT_TRUE(eventually([] { return threadIsNamed("Json Msg Loop"); }));
    const Stopwatch watch;
    m_loop->cancel();
    EXPECT_TRUE(eventually([this] { return m_loop->state() == Poco::Task::TASK_FINISHED; }));
    EXPECT_LT(watch.elapsed(), atMost(std::chrono::seconds(1)));
    EXPECT_TRUE(loggedBy(LOG_FILE).empty());
}

TEST_F(ServeCommandTest, CancelBetweenHeadAndBodyEndsItWithinASecond)
{
    sendDatagram(head(1, 10));
    const Stopwatch watch;
    m_loop->cancel();
    EXPECT_TRUE(eventually([this] { return m_loop->state() == Poco::Task::TASK_FINISHED; }));
    EXPECT_LT(watch.elapsed(), atMost(std::chrono::seconds(1)));
    EXPECT_FALSE(m_client.hasDatagram());
}

TEST_F(ServeCommandTest, CancelBeforeItRunsEndsItAtOnce)
{
    Poco::AutoPtr<IPCService::MetaDataGW::CustomJsonMsgLoop> other(
        new IPCService::MetaDataGW::CustomJsonMsgLoop(&m_subSystem));
    other->cancel();
    EXPECT_TRUE(other->isCancelled());
    other->runTask();
}

/** The loop, which runs when the test says so. */
class FailingReceiveTest : public CommandTest
{
};

TEST_F(FailingReceiveTest, HeadThatCannotBeTakenIsAnsweredUnderTagZero)
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

}  // namespace
