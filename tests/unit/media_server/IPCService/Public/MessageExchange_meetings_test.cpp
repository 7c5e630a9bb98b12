#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "media_server/IPCService/Public/Interruption.h"
#include "media_server/IPCService/Public/MessageExchange.h"
#include "media_server/IPCService/Public/exchanging.h"
#include "support/captured_log.h"
#include "support/raw_bytes.h"
#include "support/system_calls.h"
#include "support/unix_socket.h"
#include "support/waiting.h"

namespace {

using IPCService::Interrupted;
using std::chrono::milliseconds;
using testing::ElementsAre;

/// How long an exchange has its turn when its peer is silent.
constexpr milliseconds TURN(5000);
/// What comes so soon did not wait for the end of a turn.
constexpr milliseconds WITHIN_A_TURN(4500);

std::uint32_t commandOf(const std::optional<std::string>& message)
{
    return message ? numberAt<std::uint32_t>(*message, 164) : 0;
}

/// Two exchanges that both wait: ITGT is silent to the first, and the face library got the second's request after the
/// first's turn.
class TwoWaiting : public testing::Test
{
protected:
    TwoWaiting()
    {
        EXPECT_EQ(commandOf(m_itgt.receive()), 7021U);
        m_second = std::make_unique<Exchanging>(std::vector<std::uint32_t>{7019}, FACES_PATH);
        EXPECT_EQ(commandOf(m_faces.receive()), 7019U);
    }

    UnixSocket m_itgt{ITGT_PATH};
    UnixSocket m_faces{FACES_PATH};
    Exchanging m_first{{7021}};
    std::unique_ptr<Exchanging> m_second;
};

TEST_F(TwoWaiting, EachGetsItsOwnReplyWhenTheFirstOnesComesFirst)
{
    ASSERT_TRUE(m_itgt.send(OWN_PATH, reply(7021, 'i')));
    EXPECT_THAT(m_first.replies(), ElementsAre(reply(7021, 'i')));
    EXPECT_FALSE(m_second->hasEnded(milliseconds(0)));
    ASSERT_TRUE(m_faces.send(OWN_PATH, reply(7019, 'f')));
    EXPECT_THAT(m_second->replies(), ElementsAre(reply(7019, 'f')));
}

TEST_F(TwoWaiting, EachGetsItsOwnReplyWhenTheSecondOnesComesFirst)
{
    ASSERT_TRUE(m_faces.send(OWN_PATH, reply(7019, 'f')));
    EXPECT_THAT(m_second->replies(), ElementsAre(reply(7019, 'f')));
    EXPECT_FALSE(m_first.hasEnded(milliseconds(0)));
    ASSERT_TRUE(m_itgt.send(OWN_PATH, reply(7021, 'i')));
    EXPECT_THAT(m_first.replies(), ElementsAre(reply(7021, 'i')));
}

TEST_F(TwoWaiting, LateReplyReachesTheFirstAlsoWhenTheSecondHasEnded)
{
    ASSERT_TRUE(UnixSocket().send(OWN_PATH, reply(7019, 'f')));
    EXPECT_THAT(m_second->replies(), ElementsAre(reply(7019, 'f')));
    EXPECT_FALSE(m_first.hasEnded(milliseconds(0)));
    ASSERT_TRUE(UnixSocket().send(OWN_PATH, reply(7021, 'i')));
    EXPECT_THAT(m_first.replies(), ElementsAre(reply(7021, 'i')));
}

TEST_F(TwoWaiting, OtherCommandIsForWhoAskedItsSender)
{
    ASSERT_TRUE(m_faces.send(OWN_PATH, reply(1, 'w')));
    EXPECT_THAT(m_second->replies(), ElementsAre(reply(1, 'w')));
    EXPECT_FALSE(m_first.hasEnded(milliseconds(0)));
}

TEST_F(TwoWaiting, OtherCommandOfAStrangerIsForNobody)
{
    ASSERT_TRUE(UnixSocket().send(OWN_PATH, reply(1, 'w')));
    EXPECT_FALSE(m_first.hasEnded(milliseconds(200)));
    EXPECT_FALSE(m_second->hasEnded(milliseconds(200)));
    ASSERT_TRUE(m_faces.send(OWN_PATH, reply(7019, 'f')));
    EXPECT_THAT(m_second->replies(), ElementsAre(reply(7019, 'f')));
    ASSERT_TRUE(UnixSocket().send(OWN_PATH, reply(1, 'w')));
    EXPECT_THAT(m_first.replies(), ElementsAre(reply(1, 'w'))) << "who waits alone gets it";
}

TEST(ExchangesMeet, WhoIsWokenByWhatAnotherTookWaitsOnAndHoldsUpNobody)
{
    std::atomic<bool> isWoken{false};
    systemCalls().poll = [&isWoken](pollfd* waited, nfds_t count, int timeout) -> std::optional<int> {
        // Of a wait for a reply: the wake-up, and the socket.
        if (count < 3 || timeout == 0 || isWoken.exchange(true)) {
            return std::nullopt;
        }
        waited[1].revents = POLLIN;
        return 1;
    };
    UnixSocket itgt(ITGT_PATH);
    UnixSocket faces(FACES_PATH);
    Exchanging first({7021});
    ASSERT_EQ(commandOf(itgt.receive()), 7021U);
    ASSERT_TRUE(eventually([&isWoken] { return isWoken.load(); }));
    Exchanging second({7019}, FACES_PATH);
    EXPECT_EQ(commandOf(faces.receive()), 7019U) << "at the end of the first one's turn";
    ASSERT_TRUE(faces.send(OWN_PATH, reply(7019, 'f')));
    EXPECT_THAT(second.replies(), ElementsAre(reply(7019, 'f')));
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7021, 'i')));
    EXPECT_THAT(first.replies(), ElementsAre(reply(7021, 'i')));
}

TEST(ExchangesMeet, NextOneGoesWhenTheReplyIsThereAndNotBefore)
{
    Line line;
    UnixSocket itgt(ITGT_PATH);
    UnixSocket faces(FACES_PATH);
    IPCService::MessageExchange first;
    MSG_DATA message = request(7020);
    first.send(message);
    Exchanging second({7019}, FACES_PATH);
    ASSERT_TRUE(line.hasSeen(1));
    EXPECT_FALSE(faces.hasDatagram());
    EXPECT_EQ(commandOf(itgt.receive()), 7020U);
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7020, 'a')));
    EXPECT_EQ(static_cast<std::uint32_t>(first.receive(message)), 7020U);
    EXPECT_EQ(commandOf(faces.receive(WITHIN_A_TURN)), 7019U) << "the first exchange still lives, but has its reply";
}

TEST(ExchangesMeet, RequestsTakeTurnsInTheOrderOfComing)
{
    Line line;
    UnixSocket itgt(ITGT_PATH);
    Exchanging first({7001, 7005});
    ASSERT_EQ(commandOf(itgt.receive()), 7001U);
    Exchanging second({7002, 7006});
    ASSERT_TRUE(line.hasSeen(1));
    Exchanging third({7003});
    ASSERT_TRUE(line.hasSeen(2));
    Exchanging fourth({7004});
    ASSERT_TRUE(line.hasSeen(3));
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7001, 'r')));
    ASSERT_TRUE(line.hasSeen(4)) << "the first stands in line again";
    for (const std::uint32_t command : {7002U, 7003U, 7004U, 7005U, 7006U}) {
        EXPECT_EQ(commandOf(itgt.receive()), command);
        EXPECT_FALSE(itgt.hasDatagram());
        ASSERT_TRUE(itgt.send(OWN_PATH, reply(command, 'r')));
    }
    EXPECT_THAT(first.replies(), ElementsAre(reply(7001, 'r'), reply(7005, 'r')));
    EXPECT_THAT(second.replies(), ElementsAre(reply(7002, 'r'), reply(7006, 'r')));
}

TEST(ExchangesMeet, WhoIsSilentForFiveSecondsHoldsUpNobodyElse)
{
    UnixSocket itgt(ITGT_PATH);
    UnixSocket faces(FACES_PATH);
    std::atomic<int> longest{0};
    systemCalls().polling = [&longest](const pollfd*, nfds_t count, int time) {
        longest = count > 1 ? std::max(longest.load(), time) : longest.load();
    };
    const Stopwatch stopwatch;
    Exchanging silent({7021});
    ASSERT_TRUE(itgt.receive().has_value());
    Exchanging other({7019, 7018}, FACES_PATH);
    EXPECT_EQ(commandOf(faces.receive(2 * TURN)), 7019U);
    EXPECT_GE(stopwatch.elapsed(), TURN);
    EXPECT_LE(longest, 5000);
    ASSERT_TRUE(faces.send(OWN_PATH, reply(7019, 'f')));
    EXPECT_EQ(commandOf(faces.receive(WITHIN_A_TURN)), 7018U) << "the silent one held it up again";
    ASSERT_TRUE(faces.send(OWN_PATH, reply(7018, 'f')));
    EXPECT_TRUE(other.hasEnded());
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7021, 'i')));
    EXPECT_THAT(silent.replies(), ElementsAre(reply(7021, 'i')));
}

TEST(ExchangesMeet, WhoCannotReachItsPeerHoldsUpNobody)
{
    UnixSocket faces(FACES_PATH);
    Exchanging unreachable({7021});
    ASSERT_TRUE(eventually([] { return CapturedLog::withFormat("sendTo fail:%s.").size() == 1; }));
    Exchanging other({7019}, FACES_PATH);
    EXPECT_EQ(commandOf(faces.receive(WITHIN_A_TURN)), 7019U);
    ASSERT_TRUE(faces.send(OWN_PATH, reply(7019, 'f')));
    EXPECT_TRUE(other.hasEnded());
    EXPECT_FALSE(unreachable.hasEnded(milliseconds(0)));
}

TEST(ExchangesMeet, WhatIsLeftOverOfOneIsNoReplyToTheOther)
{
    UnixSocket itgt(ITGT_PATH);
    UnixSocket faces(FACES_PATH);
    IPCService::MessageExchange download;
    MSG_DATA message = request(7021);
    download.send(message);
    ASSERT_TRUE(itgt.receive().has_value());
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7021, 'i')));
    download.receive(message);
    Exchanging clear({7019}, FACES_PATH);
    EXPECT_EQ(commandOf(faces.receive()), 7019U);
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7021, 'i'))) << "the same once more, while the download pauses";
    EXPECT_FALSE(clear.hasEnded(milliseconds(200)));
    ASSERT_TRUE(faces.send(OWN_PATH, reply(7019, 'f')));
    EXPECT_THAT(clear.replies(), ElementsAre(reply(7019, 'f')));
}

TEST(ExchangesMeet, PathThatWasTakenAwayIsMadeAnewByTheNextExchange)
{
    UnixSocket itgt(ITGT_PATH);
    UnixSocket faces(FACES_PATH);
    Exchanging silent({7021});
    ASSERT_TRUE(itgt.receive().has_value());
    const UnixSocket thief(OWN_PATH);
    Exchanging clear({7019}, FACES_PATH);
    EXPECT_EQ(commandOf(faces.receive()), 7019U);
    ASSERT_TRUE(faces.send(OWN_PATH, reply(7019, 'f')));
    EXPECT_THAT(clear.replies(), ElementsAre(reply(7019, 'f')));
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7021, 'i')));
    EXPECT_THAT(silent.replies(), ElementsAre(reply(7021, 'i')));
}

TEST(ExchangesMeet, PathThatCannotBeLookedAtIsNotMadeAnew)
{
    UnixSocket itgt(ITGT_PATH);
    Exchanging silent({7021});
    ASSERT_TRUE(itgt.receive().has_value());
    const auto before = identityOfOwnPath();
    systemCalls().statFails = true;
    EXPECT_NO_THROW(IPCService::MessageExchange());
    systemCalls().statFails = false;
    EXPECT_EQ(identityOfOwnPath(), before);
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7021, 'i')));
    EXPECT_THAT(silent.replies(), ElementsAre(reply(7021, 'i')));
}

TEST(ExchangesMeet, PathThatCouldNotBeLookedAtWhenItWasBoundIsNotMadeAnew)
{
    systemCalls().statFails = true;
    const IPCService::MessageExchange first;
    systemCalls().statFails = false;
    const auto before = identityOfOwnPath();
    const IPCService::MessageExchange second;
    EXPECT_EQ(identityOfOwnPath(), before);
}

TEST(ExchangesMeet, PathThatCannotBeMadeAnewFailsTheNextExchangeOnly)
{
    UnixSocket itgt(ITGT_PATH);
    Exchanging silent({7021});
    ASSERT_TRUE(itgt.receive().has_value());
    ASSERT_EQ(::unlink(OWN_PATH), 0);
    ASSERT_EQ(::mkdir(OWN_PATH, 0700), 0);
    EXPECT_ANY_THROW(IPCService::MessageExchange());
    EXPECT_FALSE(silent.hasEnded(milliseconds(100)));
    ASSERT_EQ(::rmdir(OWN_PATH), 0);
    const IPCService::MessageExchange next;
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7021, 'i')));
    EXPECT_THAT(silent.replies(), ElementsAre(reply(7021, 'i')));
}

TEST(ExchangesMeet, WhatIsLeftOverIsNobodysWhileItsExchangeStandsInLine)
{
    Line line;
    UnixSocket itgt(ITGT_PATH);
    UnixSocket faces(FACES_PATH);
    Exchanging clear({7018, 7018}, FACES_PATH);
    EXPECT_EQ(commandOf(faces.receive()), 7018U);
    Exchanging download({7031});
    ASSERT_TRUE(line.hasSeen(1));
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7021, 'd'))) << "a second copy of an answer";
    EXPECT_FALSE(clear.hasEnded(milliseconds(200)));
    ASSERT_TRUE(faces.send(OWN_PATH, reply(7018, 'f')));
    EXPECT_EQ(commandOf(itgt.receive()), 7031U);
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7031, 't')));
    EXPECT_THAT(download.replies(), ElementsAre(reply(7031, 't')));
    EXPECT_EQ(commandOf(faces.receive()), 7018U);
    ASSERT_TRUE(faces.send(OWN_PATH, reply(7018, 'g')));
    EXPECT_THAT(clear.replies(), ElementsAre(reply(7018, 'f'), reply(7018, 'g')));
}

TEST(ExchangesMeet, OtherCommandIsForWhoAskedItsSenderFirst)
{
    UnixSocket itgt(ITGT_PATH);
    IPCService::MessageExchange first;
    MSG_DATA message = request(7020);
    first.send(message);
    ASSERT_TRUE(itgt.receive().has_value());
    Exchanging second({7031});
    ASSERT_EQ(commandOf(itgt.receive(milliseconds(7000))), 7031U);
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7777, 'o')));
    EXPECT_EQ(first.receive(message), 7777);
    EXPECT_FALSE(second.hasEnded(milliseconds(100)));
}

TEST(ExchangesMeet, WhoIsAnsweredWhileItStandsInLineToSendAgainLeavesTheLine)
{
    UnixSocket faces(FACES_PATH);
    Exchanging absent({7021});
    ASSERT_TRUE(eventually([] { return CapturedLog::withFormat("sendTo fail:%s.").size() == 1; }));
    Exchanging silent({7019}, FACES_PATH);
    ASSERT_EQ(commandOf(faces.receive()), 7019U);
    constexpr milliseconds IN_LINE(1500);
    EXPECT_FALSE(absent.hasEnded(IN_LINE)) << "it stands in line from one second on, for five";
    UnixSocket itgt(ITGT_PATH);
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7021, 'r')));
    EXPECT_TRUE(absent.hasEnded(WITHIN_A_TURN - IN_LINE));
    EXPECT_THAT(absent.replies(), ElementsAre(reply(7021, 'r')));
    EXPECT_FALSE(itgt.receive(milliseconds(100)).has_value()) << "it was sent all the same";
}

TEST(ExchangesMeet, InterruptWakesWhoStandsInLineAndTheNextGoes)
{
    Line line;
    UnixSocket itgt(ITGT_PATH);
    Exchanging first({7001});
    ASSERT_EQ(commandOf(itgt.receive()), 7001U);
    Exchanging second({7002});
    ASSERT_TRUE(line.hasSeen(1));
    Exchanging third({7003});
    ASSERT_TRUE(line.hasSeen(2));
    second.interrupt();
    EXPECT_THROW(second.replies(), Interrupted);
    first.interrupt();
    EXPECT_THROW(first.replies(), Interrupted);
    EXPECT_EQ(commandOf(itgt.receive(WITHIN_A_TURN)), 7003U);
}

/// Answers each request to it with its own bytes and a mark, until told to end.
class Echo
{
public:
    explicit Echo(const std::string& path)
        : m_socket(path), m_thread([this] {
              while (!m_ends) {
                  if (auto message = m_socket.receive(milliseconds(50))) {
                      message->at(1000) = 'E';
                      EXPECT_TRUE(m_socket.send(OWN_PATH, *message));
                  }
              }
          })
    {
    }
    ~Echo()
    {
        m_ends = true;
        m_thread.join();
    }
    Echo(const Echo&) = delete;
    Echo& operator=(const Echo&) = delete;

private:
    UnixSocket m_socket;
    std::atomic<bool> m_ends{false};
    std::thread m_thread;
};

TEST(ExchangesMeet, FourThreadsGetTheirOwnRepliesAndNobodyElses)
{
    constexpr std::size_t ROUNDS = 200;
    const Echo itgt(ITGT_PATH);
    const Echo faces(FACES_PATH);
    std::vector<std::future<void>> threads;
    for (const std::uint32_t command : {7018U, 7019U, 7020U, 7021U}) {
        const std::string peer = command < 7020 ? FACES_PATH : ITGT_PATH;
        threads.push_back(std::async(std::launch::async, [command, peer] {
            for (std::size_t round = 0; round < ROUNDS; round += 4) {
                IPCService::MessageExchange exchange;
                for (std::size_t number = round; number < round + 4; ++number) {
                    std::string expected = requestBytes(command, peer);
                    putNumber(expected, 2000, static_cast<std::uint32_t>(number));
                    MSG_DATA message;
                    std::memcpy(&message, expected.data(), sizeof message);
                    expected.at(1000) = 'E';
                    exchange.exchange(message);
                    ASSERT_EQ(bytesOf(message), expected);
                }
            }
        }));
    }
    for (std::future<void>& thread : threads) {
        thread.get();
    }
}

}  // namespace
