#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <new>
#include <set>
#include <string>
#include <thread>

#include "command_fixture.h"
#include "media_server/IPCService/Public/Interruption.h"

using IPCService::Interrupted;
using IPCService::Interruption;

namespace {

/** How head and body of a command come in. */
class ReceiveCommandTest : public CommandTest
{
};

/** Most memory that this process ever held, in bytes. */
long memoryHeld()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss * 1024;
}

/** The descriptor of this process that is bound to a socket file. */
int descriptorBoundTo(const std::string& path)
{
    for (int descriptor = 3; descriptor < 1024; ++descriptor) {
        sockaddr_un name = {};
        socklen_t size = sizeof(name);
        if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&name), &size) == 0 && name.sun_family == AF_UNIX &&
            path == name.sun_path) {
            return descriptor;
        }
    }
    ADD_FAILURE() << path << " is not bound";
    return -1;
}

TEST_F(ReceiveCommandTest, YieldsTagAndBody)
{
    sendCommand(0xFEDCBA98, R"({"taskName":"x"})");
    receiveCommand();
    EXPECT_EQ(m_body, R"({"taskName":"x"})");
    EXPECT_EQ(m_tag, 0xFEDCBA98);
    EXPECT_TRUE(loggedBy("Custom_JsonMsgLoop").empty());
}

TEST_F(ReceiveCommandTest, ReadsNothingButTagAndLengthOfTheHead)
{
    std::string strange(280, '\xEE');
    putNumber<std::uint32_t>(strange, 240, 7);
    putNumber<std::uint32_t>(strange, 256, 2);
    sendDatagram(strange);
    sendDatagram("{}");
    receiveCommand();
    EXPECT_EQ(m_body, "{}");
    EXPECT_EQ(m_tag, 7U);
}

TEST_F(ReceiveCommandTest, BodyEndsAtItsFirstNul)
{
    sendCommand(1, bytes("text\0and more"));
    receiveCommand();
    EXPECT_EQ(m_body, "text");
}

TEST_F(ReceiveCommandTest, LengthOfZeroStillTakesTheBodyOff)
{
    sendDatagram(head(1, 0));
    sendDatagram("not announced");
    sendCommand(2, "next");
    receiveCommand();
    EXPECT_EQ(m_body, "");
    EXPECT_EQ(m_tag, 1U);
    receiveCommand();
    EXPECT_EQ(m_body, "next");
    EXPECT_EQ(m_tag, 2U);
}

TEST_F(ReceiveCommandTest, EmptyBodyDatagramIsABody)
{
    sendCommand(1, "");
    sendCommand(2, "next");
    receiveCommand();
    EXPECT_EQ(m_body, "");
    receiveCommand();
    EXPECT_EQ(m_body, "next");
}

TEST_F(ReceiveCommandTest, BodyLongerThanItsLengthIsCut)
{
    sendDatagram(head(1, 1));
    sendDatagram("abc");
    sendDatagram(head(2, 3));
    sendDatagram("abcdef");
    receiveCommand();
    EXPECT_EQ(m_body, "a");
    receiveCommand();
    EXPECT_EQ(m_body, "abc");
}

class ClaimedLengthTest : public ReceiveCommandTest, public testing::WithParamInterface<std::uint32_t>
{
};

TEST_P(ClaimedLengthTest, TakesNoMemoryForBytesThatAreNotThere)
{
    sendDatagram(head(1, GetParam()));
    sendDatagram("short body");
    const long before = memoryHeld();
    receiveCommand();
    EXPECT_LT(memoryHeld() - before, 16L << 20);
    EXPECT_EQ(m_body, "short body");
    EXPECT_EQ(m_tag, 1U);
}

INSTANTIATE_TEST_SUITE_P(ReceiveCommandTest, ClaimedLengthTest,
                         testing::Values(11U, 100000000U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFEU, 0xFFFFFFFFU));

TEST_F(ReceiveCommandTest, BodyOf200KilobytesComesWhole)
{
    std::string body(200U << 10, '\0');
    for (std::size_t i = 0; i < body.size(); ++i) {
        body[i] = static_cast<char>('a' + i % 23);
    }
    sendCommand(1, body);
    receiveCommand();
    EXPECT_TRUE(m_body == body);
}

TEST_F(ReceiveCommandTest, ShortHeadReadsAsZeroWhereItEnds)
{
    sendDatagram("/tmp/HK");
    sendDatagram("body");
    receiveCommand();
    EXPECT_EQ(m_body, "");
    EXPECT_EQ(m_tag, 0U);
    sendDatagram(head(9, 4).substr(0, 244));
    sendDatagram("body");
    receiveCommand();
    EXPECT_EQ(m_body, "");
    EXPECT_EQ(m_tag, 9U);
    sendDatagram(head(10, 4).substr(0, 260));
    sendDatagram("body");
    receiveCommand();
    EXPECT_EQ(m_body, "body");
    EXPECT_EQ(m_tag, 10U);
}

TEST_F(ReceiveCommandTest, EmptyHeadIsAHeadOfZeros)
{
    sendDatagram("");
    sendDatagram("body");
    sendCommand(2, "next");
    receiveCommand();
    EXPECT_EQ(m_body, "");
    EXPECT_EQ(m_tag, 0U);
    receiveCommand();
    EXPECT_EQ(m_body, "next");
}

TEST_F(ReceiveCommandTest, LongHeadIsCut)
{
    sendDatagram(head(3, 4) + std::string(1000, 'x'));
    sendDatagram("body");
    receiveCommand();
    EXPECT_EQ(m_body, "body");
    EXPECT_EQ(m_tag, 3U);
}

TEST_F(ReceiveCommandTest, HeadWhoseBodyIsLostDoesNotTakeTheNextHead)
{
    sendDatagram(head(1, 100));
    sendCommand(2, "body of the second");
    receiveCommand();
    EXPECT_EQ(m_body, "");
    EXPECT_EQ(m_tag, 1U);
    receiveCommand();
    EXPECT_EQ(m_body, "body of the second");
    EXPECT_EQ(m_tag, 2U);
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
    receiveCommand();
    EXPECT_EQ(m_body, "");
    EXPECT_EQ(m_tag, 1U);
    receiveCommand();
    EXPECT_EQ(m_body, "body of the second");
    EXPECT_EQ(m_tag, 2U);
}

TEST_P(LostBodyTest, StrayByteCostsNoLaterCommand)
{
    std::string next = head(2, 18);
    putText(next, 0, GetParam());
    sendDatagram("x");
    sendDatagram(next);
    sendDatagram("body of the second");
    receiveCommand();
    EXPECT_EQ(m_body, "");
    receiveCommand();
    EXPECT_EQ(m_body, "body of the second");
    EXPECT_EQ(m_tag, 2U);
}

INSTANTIATE_TEST_SUITE_P(ReceiveCommandTest, LostBodyTest,
                         testing::Values(std::string(16, '\0'), "/tmp/HK", "/run/HK", std::string(16, '\xFF'),
                                         "@hidden", " \n", "HK", "}", "tmp/HK", "truth", "nul", "f", "-", "-x"));

/** Bodies of the size of a head that begin JSON text. Another size was announced. */
class TextOfTheSizeOfAHeadTest : public ReceiveCommandTest, public testing::WithParamInterface<std::string>
{
};

TEST_P(TextOfTheSizeOfAHeadTest, IsABody)
{
    const std::string body = GetParam() + std::string(280 - GetParam().size(), ' ');
    sendDatagram(head(1, 300));
    sendDatagram(body);
    receiveCommand();
    EXPECT_EQ(m_body, body);
    EXPECT_EQ(m_tag, 1U);
}

INSTANTIATE_TEST_SUITE_P(ReceiveCommandTest, TextOfTheSizeOfAHeadTest,
                         testing::Values("{}", "[]", " \t\r\n{}", "\"a\"", "-1", "7", "true", "false", "null"));

TEST_F(ReceiveCommandTest, WhatTheLoopItselfSentIsNoCommand)
{
    ASSERT_EQ(::unlink("/tmp/KH"), 0);
    ASSERT_EQ(::symlink("HK", "/tmp/KH"), 0);
    m_loop->SendJsonMsg("/tmp/KH", 9, 200);
    sendCommand(1, "text");
    receiveCommand();
    EXPECT_EQ(m_body, "text");
    EXPECT_EQ(m_tag, 1U);
    m_loop->SendJsonMsg("/tmp/KH", 9, 200);
    sendDatagram(head(2, 4));
    m_loop->SendJsonMsg("/tmp/KH", 9, 200);
    sendDatagram("more");
    receiveCommand();
    EXPECT_EQ(m_body, "more") << "its own reply came between head and body";
    EXPECT_EQ(m_tag, 2U);
}

TEST_F(ReceiveCommandTest, BodyAsLongAsAHeadIsStillABody)
{
    const std::string body = R"({"taskName":")" + std::string(280 - 15, 'n') + R"("})";
    ASSERT_EQ(body.size(), 280U);
    sendCommand(1, body);
    receiveCommand();
    EXPECT_EQ(m_body, body);
}

TEST_F(ReceiveCommandTest, FailureIsLoggedAndReadsAsAnEmptyBody)
{
    const int descriptor = descriptorBoundTo("/tmp/HK");
    const int saved = dup(descriptor);
    ASSERT_EQ(dup2(STDIN_FILENO, descriptor), descriptor);
    m_tag = 5;
    m_body = "of an earlier command";
    std::uint32_t tag = 0;
    m_loop->RecvJsonMsg(m_body, tag);
    EXPECT_EQ(m_body, "");
    EXPECT_EQ(tag, 0U);
    const std::string text = firstLogged("Custom_JsonMsgLoop", "receiveBytes fail:%s.");
    EXPECT_EQ(loggedBy("Custom_JsonMsgLoop"), std::vector<LogLine>{error("receiveBytes fail:%s.", text)});
    EXPECT_GT(text.size(), std::string("receiveBytes fail:.").size());
    dup2(saved, descriptor);
    sendCommand(6, "works again");
    receiveCommand();
    EXPECT_EQ(m_body, "works again");
}

TEST_F(ReceiveCommandTest, BodyWithoutMemoryIsTakenAllTheSame)
{
    systemCalls().largestArray = 100;
    sendCommand(1, std::string(100, 'x'));
    sendCommand(2, std::string(99, 'y'));
    EXPECT_THROW(receiveCommand(), std::bad_alloc);
    EXPECT_EQ(m_tag, 1U);
    EXPECT_TRUE(loggedBy("Custom_JsonMsgLoop").empty());
    receiveCommand();
    EXPECT_EQ(m_body, std::string(99, 'y'));
    EXPECT_EQ(m_tag, 2U);
}

TEST_F(ReceiveCommandTest, BodyIsTriedThreeTimes)
{
    // The first call takes the head; each attempt looks at the body with one call and takes it with the next.
    for (const std::set<int>& failing : {std::set<int>{2, 3}, std::set<int>{3, 5}, std::set<int>{2, 4}}) {
        CapturedLog::clear();
        failReceives(failing);
        sendCommand(1, "third time lucky");
        receiveCommand();
        EXPECT_EQ(m_body, "third time lucky");
        EXPECT_EQ(m_tag, 1U);
        EXPECT_EQ(countLogged("Custom_JsonMsgLoop", "receiveBytes fail:%s."), 2);
    }
}

TEST_F(ReceiveCommandTest, BodyIsNotTriedAFourthTime)
{
    for (const std::set<int>& failing : {std::set<int>{2, 3, 4, 5}, std::set<int>{3, 5, 7, 9}}) {
        CapturedLog::clear();
        failReceives(failing);
        sendCommand(1, "once too often");
        receiveCommand();
        EXPECT_EQ(m_body, "");
        EXPECT_EQ(m_tag, 1U);
        EXPECT_EQ(countLogged("Custom_JsonMsgLoop", "receiveBytes fail:%s."), 3);
        systemCalls().recvFails = nullptr;
        sendDatagram("body of a head, namely of what is left");
        receiveCommand();
    }
}

TEST_F(ReceiveCommandTest, InterruptionEndsTheWaitForAHeadAndForABody)
{
    for (const bool withHead : {false, true}) {
        Interruption interruption;
        std::atomic<bool> interrupted{false};
        std::thread thread([&] {
            const Interruption::Scope scope(interruption);
            try {
                receiveCommand();
            } catch (const Interrupted&) {
                interrupted = true;
            }
        });
        if (withHead) {
            sendDatagram(head(1, 10));
        }
        const Stopwatch watch;
        interruption.interrupt();
        thread.join();
        EXPECT_LT(watch.elapsed(), atMost(std::chrono::seconds(1)));
        EXPECT_TRUE(interrupted);
    }
}

}  // namespace
