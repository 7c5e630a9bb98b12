#include "media_server/IPCService/Public/MessageExchange.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "media_server/IPCService/Public/Interruption.h"
#include "support/captured_log.h"
#include "support/raw_bytes.h"
#include "support/system_calls.h"
#include "support/unix_socket.h"
#include "support/waiting.h"

namespace {

using IPCService::Interrupted;
using IPCService::Interruption;
using IPCService::MessageExchange;
using std::chrono::milliseconds;

const char OWN_PATH[] = "/tmp/CP";
const char ITGT_PATH[] = "/tmp/II";

/// A request to ITGT.
MSG_DATA request(std::uint32_t command)
{
    std::string wire(21408, '\0');
    putText(wire, 0, ITGT_PATH);
    putText(wire, 8, OWN_PATH);
    putNumber(wire, 164, command);
    MSG_DATA message;
    std::memcpy(&message, wire.data(), sizeof message);
    return message;
}

std::string reply(std::uint32_t command, char fill)
{
    std::string wire(21408, fill);
    putNumber(wire, 164, command);
    return wire;
}

/// A thread that begins an exchange, and tells how far it has come.
class Exchanging
{
public:
    Exchanging()
    {
        m_result = std::async(std::launch::async, [this] {
            const Interruption::Scope scope(m_interruption);
            MessageExchange exchange;
            m_hasTurn = true;
            MSG_DATA message = request(7021);
            exchange.exchange(message);
        });
    }

    ~Exchanging() { interrupt(); }
    Exchanging(const Exchanging&) = delete;
    Exchanging& operator=(const Exchanging&) = delete;

    bool hasTurn() const { return m_hasTurn; }
    void interrupt() { m_interruption.interrupt(); }
    std::future<void>& result() { return m_result; }
    bool ends() const { return m_result.wait_for(DEADLINE) == std::future_status::ready; }

private:
    Interruption m_interruption;
    std::atomic<bool> m_hasTurn{false};
    std::future<void> m_result;
};

/// Tells when some thread waits that long or less, but not without limit.
class TurnWait
{
public:
    TurnWait()
    {
        systemCalls().polling = [this](const pollfd*, nfds_t count, int limit) {
            // The sockets of these tests wait for one descriptor.
            if (count == 2 && limit > 0) {
                m_longest = limit;
            }
        };
    }
    ~TurnWait() { systemCalls().polling = nullptr; }
    TurnWait(const TurnWait&) = delete;
    TurnWait& operator=(const TurnWait&) = delete;

    int longest() const { return m_longest; }

private:
    std::atomic<int> m_longest{0};
};

TEST(MessageExchange, RequestLeavesFromItsPathAndTheReplyComesBack)
{
    UnixSocket itgt(ITGT_PATH);
    auto exchanging = std::async(std::launch::async, [] {
        MessageExchange exchange;
        MSG_DATA message = request(7020);
        EXPECT_EQ(static_cast<std::uint32_t>(exchange.exchange(message)), 7020U);
        return bytesOf(message);
    });
    EXPECT_EQ(itgt.receive(), bytesOf(request(7020)));
    EXPECT_EQ(itgt.sender(), OWN_PATH);
    struct stat status = {};
    EXPECT_EQ(::stat(OWN_PATH, &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0660U);
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7020, 'r')));
    EXPECT_EQ(exchanging.get(), reply(7020, 'r'));
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

TEST(MessageExchange, SeveralRequestsShareOneTurn)
{
    UnixSocket itgt(ITGT_PATH);
    MessageExchange exchange;
    for (const std::uint32_t command : {7019U, 7018U, 7018U}) {
        MSG_DATA message = request(command);
        exchange.send(message);
        EXPECT_EQ(numberAt<std::uint32_t>(itgt.receive().value(), 164), command);
        ASSERT_TRUE(itgt.send(OWN_PATH, reply(command, 'y')));
        EXPECT_EQ(static_cast<std::uint32_t>(exchange.receive(message)), command);
    }
}

TEST(MessageExchange, NothingIsWaitedForWhenThePeerIsMissing)
{
    MessageExchange exchange;
    MSG_DATA message = request(7031);
    const Stopwatch stopwatch;
    EXPECT_EQ(static_cast<std::uint32_t>(exchange.exchange(message)), 7031U);
    EXPECT_LT(stopwatch.elapsed(), milliseconds(1000) + SLOWNESS);
    EXPECT_EQ(bytesOf(message), bytesOf(request(7031)));
    EXPECT_EQ(CapturedLog::withFormat("sendTo fail:%s.").size(), 1U);
}

TEST(MessageExchange, UnterminatedDestinationIsSentNowhere)
{
    MessageExchange exchange;
    MSG_DATA message = request(7031);
    std::memcpy(&message, "/tmp/II8/tmp/CP", 15);
    exchange.send(message);
    EXPECT_EQ(CapturedLog::withFormat("sendTo fail:%s.").size(), 1U);
}

TEST(MessageExchange, PathThatCannotBeBoundThrowsAndPassesTheTurnOn)
{
    ASSERT_EQ(::mkdir(OWN_PATH, 0700), 0);
    EXPECT_ANY_THROW(MessageExchange());
    ASSERT_EQ(::rmdir(OWN_PATH), 0);
    const Stopwatch stopwatch;
    const MessageExchange next;
    EXPECT_LT(stopwatch.elapsed(), milliseconds(3000) + SLOWNESS);
}

TEST(MessageExchange, SecondThreadWaitsForItsTurn)
{
    const TurnWait wait;
    UnixSocket itgt(ITGT_PATH);
    auto first = std::make_unique<MessageExchange>();
    Exchanging second;
    ASSERT_TRUE(eventually([&wait] { return wait.longest() > 0; }));
    EXPECT_LE(wait.longest(), 5000);
    EXPECT_FALSE(second.hasTurn());

    MSG_DATA message = request(7020);
    first->send(message);
    itgt.receive();
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7020, 'a')));
    EXPECT_EQ(static_cast<std::uint32_t>(first->receive(message)), 7020U) << "its path was taken";
    EXPECT_FALSE(second.hasTurn());

    const Stopwatch stopwatch;
    first.reset();
    EXPECT_EQ(numberAt<std::uint32_t>(itgt.receive().value(), 164), 7021U);
    EXPECT_LT(stopwatch.elapsed(), milliseconds(3000) + SLOWNESS) << "it was its turn at once";
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7021, 'b')));
    EXPECT_TRUE(second.ends());
}

TEST(MessageExchange, FinishPassesTheTurnOnWhileTheSocketLives)
{
    UnixSocket itgt(ITGT_PATH);
    MessageExchange first;
    first.finish();
    const Stopwatch stopwatch;
    Exchanging second;
    EXPECT_TRUE(itgt.receive().has_value());
    EXPECT_LT(stopwatch.elapsed(), milliseconds(3000) + SLOWNESS);
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7021, 'b')));
    EXPECT_TRUE(second.ends());
}

TEST(MessageExchange, FinishedTwiceIsOneTurnOnly)
{
    auto first = std::make_unique<MessageExchange>();
    first->finish();
    first->finish();
    first.reset();
    const MessageExchange holder;
    const TurnWait wait;
    Exchanging second;
    EXPECT_TRUE(eventually([&wait] { return wait.longest() > 0; })) << "there is a turn too many";
    EXPECT_FALSE(second.hasTurn());
    second.interrupt();
    EXPECT_THROW(second.result().get(), Interrupted);
}

TEST(MessageExchange, WhoWaitedFiveSecondsGoesAheadAndTakesThePath)
{
    UnixSocket itgt(ITGT_PATH);
    Exchanging stuck;
    ASSERT_TRUE(itgt.receive().has_value());

    const Stopwatch stopwatch;
    Exchanging second;
    ASSERT_TRUE(itgt.receive().has_value());
    EXPECT_GE(stopwatch.elapsed(), milliseconds(4900));
    EXPECT_LT(stopwatch.elapsed(), milliseconds(8000) + SLOWNESS);
    ASSERT_TRUE(itgt.send(OWN_PATH, reply(7021, 'b')));
    EXPECT_TRUE(second.ends()) << "the reply went elsewhere";
    {
        const Stopwatch turn;
        const MessageExchange third;
        EXPECT_LT(turn.elapsed(), milliseconds(4000) + SLOWNESS) << "the stuck exchange lost its turn for good";
    }

    EXPECT_EQ(stuck.result().wait_for(milliseconds(0)), std::future_status::timeout);
    stuck.interrupt();
    EXPECT_THROW(stuck.result().get(), Interrupted);
    const TurnWait wait;
    const MessageExchange next;
    EXPECT_EQ(wait.longest(), 0) << "the turn is free again";
    Exchanging after;
    EXPECT_TRUE(eventually([&wait] { return wait.longest() > 0; })) << "there is a turn too many";
    after.interrupt();
    EXPECT_THROW(after.result().get(), Interrupted);
}

TEST(MessageExchange, InterruptWakesASilentExchange)
{
    UnixSocket itgt(ITGT_PATH);
    Exchanging exchanging;
    ASSERT_TRUE(itgt.receive().has_value());
    const Stopwatch stopwatch;
    exchanging.interrupt();
    EXPECT_THROW(exchanging.result().get(), Interrupted);
    EXPECT_LT(stopwatch.elapsed(), milliseconds(1000) + SLOWNESS);
}

TEST(MessageExchange, InterruptWakesWhoWaitsForATurn)
{
    const TurnWait wait;
    const MessageExchange holder;
    Exchanging waiting;
    ASSERT_TRUE(eventually([&wait] { return wait.longest() > 0; }));
    const Stopwatch stopwatch;
    waiting.interrupt();
    EXPECT_THROW(waiting.result().get(), Interrupted);
    EXPECT_LT(stopwatch.elapsed(), milliseconds(1000) + SLOWNESS);
    EXPECT_FALSE(waiting.hasTurn());
}

}  // namespace
