#include <gtest/gtest.h>
#include <unistd.h>

#include <new>
#include <set>
#include <string>

#include "command_fixture.h"

namespace {

/** How head and body of a command come in. */
class ReceiveCommandTest : public CommandTest
{
protected:
    void expectReceived(std::uint32_t tag, const std::string& body)
    {
        receiveCommand();
        EXPECT_EQ(m_body, body);
        EXPECT_EQ(m_tag, tag);
    }
};

TEST_F(ReceiveCommandTest, YieldsTagAndBody)
{
    sendCommand(0xFEDCBA98, R"({"taskName":"x"})");
    expectReceived(0xFEDCBA98, R"({"taskName":"x"})");
    EXPECT_TRUE(loggedBy("Custom_JsonMsgLoop").empty());
}

TEST_F(ReceiveCommandTest, HeadsOfOddFormAndBodiesOfOddLengthCountAsFarAsTheyGo)
{
    std::string strange(280, '\xEE');
    putNumber<std::uint32_t>(strange, 240, 7);
    putNumber<std::uint32_t>(strange, 256, 4);
    const struct
    {
        const char* what;
        std::string head;
        std::string body;
        std::uint32_t receivedTag;
        std::string receivedBody;
    } rows[] = {
        {"nothing but tag and length of a head is read", strange, "body", 7, "body"},
        {"empty head", "", "body", 0, ""},
        {"head without a tag", "/tmp/HK", "body", 0, ""},
        {"head without a length", head(9, 4).substr(0, 244), "body", 9, ""},
        {"head that ends behind its length", head(10, 4).substr(0, 260), "body", 10, "body"},
        {"long head", head(3, 4) + std::string(1000, 'x'), "body", 3, "body"},
        {"length of zero", head(1, 0), "not announced", 1, ""},
        {"body longer than its length", head(1, 1), "abc", 1, "a"},
        {"body shorter than its length", head(1, 0xFFFFFFFF), "short", 1, "short"},
        {"empty body", head(1, 0), "", 1, ""},
        {"body with a NUL", head(1, 13), bytes("text\0and more"), 1, "text"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        sendDatagram(row.head);
        sendDatagram(row.body);
        sendCommand(2, "next");
        expectReceived(row.receivedTag, row.receivedBody);
        expectReceived(2, "next");
    }
}

/** What may stand in the path fields of a head, where only its own client could read anything from it. */
class LostBodyTest : public ReceiveCommandTest, public testing::WithParamInterface<std::string>
{
};

TEST_P(LostBodyTest, CostsItsOwnCommandOnlyWhateverTheNextHeadHasInItsPaths)
{
    std::string next = head(2, 18);
    putText(next, 0, GetParam());
    sendDatagram(head(1, 100));
    sendDatagram(next);
    sendDatagram("body of the second");
    expectReceived(1, "");
    expectReceived(2, "body of the second");
}

INSTANTIATE_TEST_SUITE_P(ReceiveCommandTest, LostBodyTest,
                         testing::Values(std::string(16, '\0'), "/tmp/HK", "/run/HK", std::string(16, '\xFF'),
                                         "@hidden", " \n", "HK", "}", "tmp/HK", "truth", "nul", "f", "-", "-/",
                                         "-:", "-:0", "-/9", "-x"));

/** Bodies of the size of a head that begin JSON text. Another size was announced. */
class TextOfTheSizeOfAHeadTest : public ReceiveCommandTest, public testing::WithParamInterface<std::string>
{
};

TEST_P(TextOfTheSizeOfAHeadTest, IsABody)
{
    const std::string body = GetParam() + std::string(280 - GetParam().size(), ' ');
    sendDatagram(head(1, 300));
    sendDatagram(body);
    expectReceived(1, body);
}

INSTANTIATE_TEST_SUITE_P(ReceiveCommandTest, TextOfTheSizeOfAHeadTest,
                         testing::Values("{}", "[]", " \t\r\n{}", " {}", std::string(278, ' ') + "{}", "\"a\"", "-0",
                                         "-9", "0", "9", "true", "false", "null"));

TEST_F(ReceiveCommandTest, HeadInPlaceOfABodyIsNotTriedAgain)
{
    int pauses = 0;
    systemCalls().polling = [&pauses](const pollfd*, nfds_t, int milliseconds) { pauses += milliseconds > 0 ? 1 : 0; };
    sendDatagram(head(1, 4));
    sendCommand(2, "next");
    expectReceived(1, "");
    EXPECT_EQ(pauses, 0);
    expectReceived(2, "next");
}

TEST_F(ReceiveCommandTest, OwnRepliesBeforeHeadAndBodyArePassedOver)
{
    ASSERT_EQ(::unlink("/tmp/KH"), 0);
    ASSERT_EQ(::symlink("HK", "/tmp/KH"), 0);
    m_loop->SendJsonMsg("/tmp/KH", 8, 200);
    sendDatagram(head(2, 4));
    m_loop->SendJsonMsg("/tmp/KH", 9, 200);
    sendDatagram("more");
    expectReceived(2, "more");
}

TEST_F(ReceiveCommandTest, OwnReplyThatCannotBePassedOverIsPassedOverLater)
{
    ASSERT_EQ(::unlink("/tmp/KH"), 0);
    ASSERT_EQ(::symlink("HK", "/tmp/KH"), 0);
    m_loop->SendJsonMsg("/tmp/KH", 8, 200);
    sendCommand(2, "more");
    failReceives({1});
    receiveCommand();
    EXPECT_EQ(countLogged("Custom_JsonMsgLoop", "receiveBytes fail:%s."), 1);
    expectReceived(2, "more");
}

TEST_F(ReceiveCommandTest, BodyWithoutMemoryIsTakenAllTheSame)
{
    systemCalls().largestArray = 100;
    sendCommand(1, std::string(100, 'x'));
    sendCommand(2, std::string(99, 'y'));
    EXPECT_THROW(receiveCommand(), std::bad_alloc);
    EXPECT_EQ(m_tag, 1U);
    EXPECT_TRUE(loggedBy("Custom_JsonMsgLoop").empty());
    expectReceived(2, std::string(99, 'y'));
}

TEST_F(ReceiveCommandTest, BodyIsTriedThreeTimes)
{
    // The first call takes the head; each attempt looks at the body with one call and takes it with the next.
    for (const std::set<int>& failing : {std::set<int>{2, 3}, std::set<int>{3, 5}, std::set<int>{2, 4}}) {
        CapturedLog::clear();
        failReceives(failing);
        sendCommand(1, "third time lucky");
        expectReceived(1, "third time lucky");
        EXPECT_EQ(countLogged("Custom_JsonMsgLoop", "receiveBytes fail:%s."), 2);
    }
}

TEST_F(ReceiveCommandTest, BodyIsNotTriedAFourthTime)
{
    for (const std::set<int>& failing : {std::set<int>{2, 3, 4, 5}, std::set<int>{3, 5, 7, 9}}) {
        CapturedLog::clear();
        failReceives(failing);
        sendCommand(1, "once too often");
        expectReceived(1, "");
        EXPECT_EQ(countLogged("Custom_JsonMsgLoop", "receiveBytes fail:%s."), 3);
        systemCalls().recvFails = nullptr;
        sendDatagram("body of a head, namely of what is left");
        receiveCommand();
    }
}

}  // namespace
