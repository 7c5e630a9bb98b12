#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "command_fixture.h"
#include "public/utils/alg_utils/utils_process_ringbuf.h"
#include "support/fake_platform.h"
#include "support/system_calls.h"

namespace {

constexpr char LOG_FILE[] = "Custom_JsonMsgLoop";

/** The faceNotHitDown command. */
class FaceNotHitTest : public CommandTest
{
protected:
    FaceNotHitTest()
    {
        EXPECT_EQ(Utils_ProcessRingBufProducerInit(&m_subSystem.m_ringBufHandle, nullptr, 26214, 0x400000), 0);
    }

    /** @return the handler's result: 1 when the record was put, or there is nothing to put it into */
    int handle(const std::string& json)
    {
        auto info = arguments(json);
        CapturedLog::clear();
        std::uint32_t tag = 55;
        return m_loop->FaceNotHitHandler(info, tag);
    }

    /** The one record that reached the ring buffer. */
    static std::string record()
    {
        const std::vector<FakePlatform::Sent> sent = FakePlatform::sent();
        EXPECT_EQ(sent.size(), 1U);
        return sent.empty() ? "" : sent[0].record;
    }
};

TEST_F(FaceNotHitTest, PutsItsArgumentsAsOneRecordWithANulAndReplies)
{
    EXPECT_EQ(handle(R"({ "faceId" : "F1", "count" : 3, "list" : [ 1, "two", null, true, {} ] })"), 1);
    EXPECT_EQ(record(), bytes("{\"count\":3,\"faceId\":\"F1\",\"list\":[1,\"two\",null,true,{}]}\0"));
    EXPECT_EQ(FakePlatform::sent()[0].flag, 1);
    EXPECT_EQ(FakePlatform::sent()[0].handle, m_subSystem.m_ringBufHandle);
    expectReply(55, 200);
    EXPECT_EQ(loggedBy(LOG_FILE), std::vector<LogLine>{replied()});
}

TEST_F(FaceNotHitTest, RefusedRecordIsLoggedAndThenAnswered)
{
    FakePlatform::settings().sendResult = 7;
    EXPECT_EQ(handle("{}"), 0);
    expectReply(55, 400);
    EXPECT_EQ(loggedBy(LOG_FILE), (std::vector<LogLine>{error("metadata put ring buf fail."), replied()}));
    EXPECT_EQ(FakePlatform::sent().size(), 1U) << "nothing is tried twice";
}

TEST_F(FaceNotHitTest, WithoutARingBufferIsAnsweredAllTheSame)
{
    m_subSystem.m_ringBufHandle = nullptr;
    EXPECT_EQ(handle("{}"), 1);
    expectReply(55, 200);
    EXPECT_TRUE(FakePlatform::sent().empty());
    EXPECT_EQ(loggedBy(LOG_FILE), std::vector<LogLine>{replied()});
}

TEST_F(FaceNotHitTest, WithoutMemoryIsAnsweredAndThenLogged)
{
    systemCalls().largestArray = 100;
    EXPECT_EQ(handle(R"({"a":")" + std::string(92, 'x') + R"("})"), 0);
    expectReply(55, 400);
    EXPECT_TRUE(FakePlatform::sent().empty());
    EXPECT_EQ(loggedBy(LOG_FILE), (std::vector<LogLine>{replied(), error("malloc fail.")}));
}

TEST_F(FaceNotHitTest, RecordThatCannotBeCopiedIsAnsweredAndThenLogged)
{
    systemCalls().memcpyFails = true;
    EXPECT_EQ(handle("{}"), 0);
    expectReply(55, 400);
    EXPECT_TRUE(FakePlatform::sent().empty());
    EXPECT_EQ(loggedBy(LOG_FILE), (std::vector<LogLine>{replied(), error("malloc fail.")}));
}

TEST_F(FaceNotHitTest, TakesOneByteMoreThanItsText)
{
    systemCalls().largestArray = 100;
    handle(R"({"a":")" + std::string(91, 'x') + R"("})");
    expectReply(55, 200);
    EXPECT_EQ(record().size(), 100U);
}

}  // namespace
