#include "media_server/IPCService/Public/MessageExchange.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <future>
#include <new>
#include <string>
#include <vector>

#include "media_server/IPCService/Public/Interruption.h"
#include "media_server/IPCService/Public/exchanging.h"
#include "support/captured_log.h"
#include "support/raw_bytes.h"
#include "support/system_calls.h"
#include "support/unix_socket.h"
#include "support/waiting.h"

namespace {

using IPCService::Interrupted;
using IPCService::MessageExchange;
using std::chrono::milliseconds;
using testing::ElementsAre;

int sendFailures()
{
    return static_cast<int>(CapturedLog::withFormat("sendTo fail:%s.").size());
}

ino_t ownInode()
{
    struct stat status = {};
    EXPECT_EQ(::stat(OWN_PATH, &status), 0);
    return status.st_ino;
}

TEST(MessageExchange, RequestLeavesFromItsPathAndTheReplyComesBack)
{
    UnixSocket itgt(ITGT_PATH);
    Exchanging exchanging({7020});
    EXPECT_EQ(itgt.receive(), requestBytes(7020));
    EXPECT_EQ(itgt.sender(), OWN_PATH);
    struct stat status = {};
    EXPECT_EQ(::stat(OWN_PATH, &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0660U);
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7020, 'r')));
    EXPECT_THAT(exchanging.replies(), ElementsAre(reply(7020, 'r')));
}

TEST(MessageExchange, OtherCommandInTheReplyIsTold)
{
    UnixSocket itgt(ITGT_PATH);
    MessageExchange exchange;
    MSG_DATA message = request(7020);
    exchange.send(message);
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7021, 'x')));
    EXPECT_EQ(static_cast<std::uint32_t>(exchange.receive(message)), 7021U);
    EXPECT_EQ(bytesOf(message), reply(7021, 'x'));
}

TEST(MessageExchange, ShortReplyCoversTheBeginningOfTheRequest)
{
    UnixSocket itgt(ITGT_PATH);
    MessageExchange exchange;
    for (const std::size_t length : {std::size_t{0}, std::size_t{167}, std::size_t{168}, std::size_t{21407}}) {
        MSG_DATA message = request(7020);
        exchange.send(message);
        ASSERT_TRUE(itgt.send(OWN_PATH, reply(7777, 'x').substr(0, length)));
        EXPECT_EQ(static_cast<std::uint32_t>(exchange.receive(message)), length == 0     ? 7020U
                                                                         : length == 167 ? 7777U & 0x00FFFFFFU
                                                                                         : 7777U);
        EXPECT_EQ(bytesOf(message), reply(7777, 'x').substr(0, length) + requestBytes(7020).substr(length));
        itgt.receive();
    }
}

TEST(MessageExchange, SeveralRequestsShareOneSocket)
{
    UnixSocket itgt(ITGT_PATH);
    MessageExchange exchange;
    const ino_t inode = ownInode();
    for (const std::uint32_t command : {7019U, 7018U, 7018U}) {
        MSG_DATA message = request(command);
        exchange.send(message);
        EXPECT_EQ(numberAt<std::uint32_t>(itgt.receive().value(), 164), command);
        ASSERT_TRUE(itgt.send(OWN_PATH, reply(command, 'y')));
        EXPECT_EQ(static_cast<std::uint32_t>(exchange.receive(message)), command);
    }
    EXPECT_EQ(ownInode(), inode);
}

TEST(MessageExchange, SocketEndsWithTheLastExchangeAndIsMadeAnew)
{
    UnixSocket peer;
    {
        auto first = std::make_unique<MessageExchange>();
        const ino_t inode = ownInode();
        const MessageExchange second;
        EXPECT_EQ(ownInode(), inode);
        first.reset();
        EXPECT_TRUE(peer.send(OWN_PATH, "x"));
    }
    EXPECT_FALSE(peer.send(OWN_PATH, "x"));
    const MessageExchange third;
    EXPECT_TRUE(peer.send(OWN_PATH, "x"));
}

TEST(MessageExchange, PathThatLeadsToWhatChangedSinceIsBoundAnew)
{
    const MessageExchange first;
    struct stat bound = {};
    ASSERT_EQ(::stat(OWN_PATH, &bound), 0);
    // As another file with the inode of one that is gone.
    ASSERT_TRUE(eventually([&bound] {
        struct stat changed = {};
        return ::chmod(OWN_PATH, 0600) == 0 && ::stat(OWN_PATH, &changed) == 0 &&
               changed.st_ctim.tv_nsec != bound.st_ctim.tv_nsec;
    }));
    const MessageExchange second;
    EXPECT_NE(ownInode(), bound.st_ino);
}

TEST(MessageExchange, PathThatLeadsElsewhereIsBoundAnew)
{
    const MessageExchange first;
    const ino_t before = ownInode();
    ASSERT_EQ(::unlink(OWN_PATH), 0);
    ASSERT_EQ(::symlink("/dev/null", OWN_PATH), 0);
    const MessageExchange second;
    EXPECT_NE(ownInode(), before);
    EXPECT_TRUE(UnixSocket().send(OWN_PATH, "x"));
}

TEST(MessageExchange, ReplyThatCameBeforeThePathWasBoundAnewIsNotLost)
{
    UnixSocket itgt(ITGT_PATH);
    for (const bool fails : {false, true}) {
        MessageExchange first;
        MSG_DATA message = request(7020);
        first.send(message);
        ASSERT_TRUE(itgt.receive().has_value());
        ASSERT_TRUE(itgt.send(OWN_PATH, reply(7020, 'r')));
        ASSERT_EQ(::unlink(OWN_PATH), 0);
        systemCalls().recvFails = [fails] { return fails; };
        const MessageExchange second;
        systemCalls().recvFails = nullptr;
        if (fails) {
            EXPECT_EQ(CapturedLog::withFormat("receiveBytes fail:%s.").size(), 1U);
        } else {
            EXPECT_EQ(first.receive(message), 7020);
            EXPECT_EQ(bytesOf(message), reply(7020, 'r'));
        }
    }
}

TEST(MessageExchange, RequestToAnAbsentPeerIsSentEverySecondUntilItLeaves)
{
    Exchanging exchanging({7031});
    ASSERT_TRUE(eventually([] { return sendFailures() == 1; }));
    EXPECT_FALSE(exchanging.hasEnded(milliseconds(1500)));
    UnixSocket itgt(ITGT_PATH);
    EXPECT_EQ(itgt.receive(milliseconds(5000)), requestBytes(7031));
    EXPECT_EQ(sendFailures(), 1) << "a repetition was logged";
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7031, 't')));
    EXPECT_THAT(exchanging.replies(), ElementsAre(reply(7031, 't')));
    EXPECT_FALSE(itgt.hasDatagram()) << "the request was sent again although it had left";
}

TEST(MessageExchange, AbsentPeerIsTriedAgainAfterASecond)
{
    std::atomic<int> longest{0};
    systemCalls().polling = [&longest](const pollfd*, nfds_t, int time) { longest = std::max(longest.load(), time); };
    Exchanging exchanging({7031});
    ASSERT_TRUE(eventually([&longest] { return longest > 0; }));
    EXPECT_LE(longest, 1000);
    EXPECT_EQ(sendFailures(), 1);
    UnixSocket itgt(ITGT_PATH);
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7031, 't')));
    EXPECT_THAT(exchanging.replies(), ElementsAre(reply(7031, 't')));
}

TEST(MessageExchange, RepetitionWithoutMemoryIsTriedAgainASecondLater)
{
    std::atomic<bool> isShort{false};
    std::atomic<int> failed{0};
    systemCalls().sending = [&isShort, &failed] {
        if (isShort) {
            ++failed;
            throw std::bad_alloc();
        }
    };
    Exchanging exchanging({7031});
    ASSERT_TRUE(eventually([] { return sendFailures() == 1; }));
    isShort = true;
    ASSERT_TRUE(eventually([&failed] { return failed > 0; }));
    EXPECT_FALSE(exchanging.hasEnded(milliseconds(500)));
    EXPECT_LE(failed, 5);
    isShort = false;
    UnixSocket itgt(ITGT_PATH);
    EXPECT_EQ(itgt.receive(milliseconds(5000)), requestBytes(7031));
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7031, 't')));
    EXPECT_THAT(exchanging.replies(), ElementsAre(reply(7031, 't')));
}

TEST(MessageExchange, EachRequestHasAFirstFailureOfItsOwn)
{
    Exchanging exchanging({7020, 7021});
    for (const std::uint32_t command : {7020U, 7021U}) {
        ASSERT_TRUE(eventually([command] { return sendFailures() == static_cast<int>(command - 7019); }));
        UnixSocket itgt(ITGT_PATH);
        EXPECT_EQ(itgt.receive(), requestBytes(command));
        ::unlink(ITGT_PATH);
        ASSERT_TRUE(itgt.send(OWN_PATH, reply(command, 't')));
    }
    EXPECT_THAT(exchanging.replies(), ElementsAre(reply(7020, 't'), reply(7021, 't')));
    EXPECT_EQ(sendFailures(), 2);
}

TEST(MessageExchange, WhatArrivesBeforeTheRequestLeavesIsItsReply)
{
    Exchanging exchanging({7031});
    ASSERT_TRUE(eventually([] { return sendFailures() == 1; }));
    ASSERT_TRUE(UnixSocket().send(OWN_PATH, reply(7031, 'e')));
    EXPECT_THAT(exchanging.replies(), ElementsAre(reply(7031, 'e')));
}

TEST(MessageExchange, WhatEndsWithItsCommandIsAReplyToWhatHasNotLeft)
{
    Exchanging exchanging({7031});
    ASSERT_TRUE(eventually([] { return sendFailures() == 1; }));
    const std::string beginning = reply(7777, 'e').substr(0, 168);
    ASSERT_TRUE(UnixSocket().send(OWN_PATH, beginning));
    EXPECT_THAT(exchanging.replies(), ElementsAre(beginning + requestBytes(7031).substr(168)));
}

TEST(MessageExchange, WhatIsTooShortForACommandIsNoReplyToWhatHasNotLeft)
{
    Exchanging exchanging({7031});
    ASSERT_TRUE(eventually([] { return sendFailures() == 1; }));
    for (const std::size_t length : {std::size_t{0}, std::size_t{1}, std::size_t{167}}) {
        ASSERT_TRUE(UnixSocket().send(OWN_PATH, std::string(length, 'x')));
    }
    EXPECT_FALSE(exchanging.hasEnded(milliseconds(200)));
    UnixSocket itgt(ITGT_PATH);
    EXPECT_EQ(itgt.receive(), requestBytes(7031));
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7031, 't')));
    EXPECT_THAT(exchanging.replies(), ElementsAre(reply(7031, 't')));
}

TEST(MessageExchange, RequestThatComesBackIsNoReplyAndIsSentAgain)
{
    ASSERT_EQ(::symlink("CP", ITGT_PATH), 0);
    Exchanging exchanging({7021});
    EXPECT_FALSE(exchanging.hasEnded(milliseconds(500)));
    ASSERT_EQ(::unlink(ITGT_PATH), 0);
    EXPECT_TRUE(eventually([] { return sendFailures() == 1; })) << "its first failure, though not its first attempt";
    UnixSocket itgt(ITGT_PATH);
    EXPECT_EQ(itgt.receive(), requestBytes(7021));
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7021, 'r')));
    EXPECT_THAT(exchanging.replies(), ElementsAre(reply(7021, 'r')));
}

TEST(MessageExchange, FailedReceiveIsNoReplyAndComesAgainASecondLater)
{
    std::atomic<bool> fails{false};
    systemCalls().recvFails = [&fails] { return fails.exchange(false); };
    UnixSocket itgt(ITGT_PATH);
    Exchanging exchanging({7020});
    ASSERT_TRUE(itgt.receive().has_value());
    fails = true;
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7020, 'r')));
    EXPECT_FALSE(exchanging.hasEnded(milliseconds(500))) << "the next attempt was not a second later";
    EXPECT_THAT(exchanging.replies(), ElementsAre(reply(7020, 'r')));
    EXPECT_EQ(CapturedLog::withFormat("receiveBytes fail:%s.").size(), 1U);
}

TEST(MessageExchange, UnterminatedDestinationIsSentNowhereElse)
{
    UnixSocket itgt(ITGT_PATH);
    MessageExchange exchange;
    MSG_DATA message = request(7031);
    std::memcpy(&message, "/tmp/II8/tmp/CP", 15);
    exchange.send(message);
    EXPECT_EQ(sendFailures(), 1);
    EXPECT_FALSE(itgt.hasDatagram());
}

TEST(MessageExchange, MessageToNobodyOrToItselfThrows)
{
    MessageExchange exchange;
    EXPECT_ANY_THROW(exchange.send(request(7018, "")));
    EXPECT_ANY_THROW(exchange.send(request(7018, OWN_PATH)));
}

TEST(MessageExchange, PathThatCannotBeBoundThrowsAndTheNextExchangeTriesAnew)
{
    ASSERT_EQ(::mkdir(OWN_PATH, 0700), 0);
    EXPECT_ANY_THROW(MessageExchange());
    ASSERT_EQ(::rmdir(OWN_PATH), 0);
    UnixSocket itgt(ITGT_PATH);
    Exchanging next({7020});
    ASSERT_TRUE(itgt.receive().has_value());
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7020, 'r')));
    EXPECT_THAT(next.replies(), ElementsAre(reply(7020, 'r')));
}

TEST(MessageExchange, InterruptWakesASilentExchange)
{
    UnixSocket itgt(ITGT_PATH);
    Exchanging exchanging({7021});
    ASSERT_TRUE(itgt.receive().has_value());
    exchanging.interrupt();
    EXPECT_THROW(exchanging.replies(), Interrupted);
}

TEST(MessageExchange, InterruptWakesWhoCannotReachItsPeer)
{
    Exchanging exchanging({7021});
    ASSERT_TRUE(eventually([] { return sendFailures() == 1; }));
    exchanging.interrupt();
    EXPECT_THROW(exchanging.replies(), Interrupted);
}

}  // namespace
