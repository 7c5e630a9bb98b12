#include "media_server/IPCService/Public/IPCUnixTransmitter.h"

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <Poco/SharedPtr.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <new>
#include <string>
#include <utility>

#include "media_server/IPCService/Public/Interruption.h"
#include "support/captured_log.h"
#include "support/log_line.h"
#include "support/raw_bytes.h"
#include "support/system_calls.h"
#include "support/temp_folder.h"
#include "support/unix_socket.h"
#include "support/waiting.h"

namespace {

using IPCService::IPCUnixTransmitter;
using Poco::Net::SocketAddress;
using testing::StartsWith;

const char SOURCE[] = "media_server/IPCService/Public/IPCUnixTransmitter";

class UnixTransmitter : public testing::Test
{
protected:
    SocketAddress address(const std::string& name) const
    {
        return SocketAddress(Poco::Net::AddressFamily::UNIX_LOCAL, folder.file(name));
    }

    int sendText(IPCUnixTransmitter& transmitter, const std::string& text, const std::string& name) const
    {
        return transmitter.sendTo(text.data(), static_cast<int>(text.size()), address(name));
    }

    mode_t modeOf(const std::string& name) const
    {
        struct stat status = {};
        EXPECT_EQ(::stat(folder.file(name).c_str(), &status), 0);
        EXPECT_TRUE(S_ISSOCK(status.st_mode));
        return status.st_mode & 07777U;
    }

    TempFolder folder;
};

/// Sets the umask while it lives.
class Umask
{
public:
    explicit Umask(mode_t mask) : m_before(::umask(mask)) {}
    ~Umask() { ::umask(m_before); }
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;

private:
    mode_t m_before;
};

/// Has a transmitter's descriptor refer to an ordinary file while it lives.
class NoSocket
{
public:
    explicit NoSocket(int descriptor) : m_descriptor(descriptor), m_saved(::dup(descriptor))
    {
        const int other = ::open("/proc/self/status", O_RDONLY | O_CLOEXEC);
        EXPECT_NE(other, -1);
        EXPECT_NE(::dup2(other, m_descriptor), -1);
        ::close(other);
    }
    ~NoSocket()
    {
        ::dup2(m_saved, m_descriptor);
        ::close(m_saved);
    }
    NoSocket(const NoSocket&) = delete;
    NoSocket& operator=(const NoSocket&) = delete;

private:
    int m_descriptor;
    int m_saved;
};

TEST_F(UnixTransmitter, SocketFileTakesThePlaceOfAStaleOneWithMode0660WhateverTheUmask)
{
    folder.write("own", "not a socket");
    for (const mode_t mask : {0777U, 0000U, 0022U}) {
        const Umask umask(mask);
        const IPCUnixTransmitter transmitter(folder.file("own"));
        EXPECT_EQ(modeOf("own"), 0660U) << std::oct << mask;
    }
}

TEST_F(UnixTransmitter, TheSocketBoundLastOwnsThePath)
{
    IPCUnixTransmitter first(folder.file("own"));
    IPCUnixTransmitter second(folder.file("own"));
    ASSERT_TRUE(UnixSocket().send(folder.file("own"), "hello"));

    EXPECT_NE(second.PollRead(20, 0), 0);
    EXPECT_EQ(first.PollRead(0, 0), 0);
}

TEST_F(UnixTransmitter, PathThatCannotBeBoundThrows)
{
    // The library's base of its network exceptions stands for errors that it has no own class for.
    EXPECT_THROW(IPCUnixTransmitter(folder.file("missing/own")), Poco::IOException);
    ASSERT_EQ(::mkdir(folder.file("own").c_str(), 0700), 0);
    EXPECT_THROW(IPCUnixTransmitter(folder.file("own")), Poco::Net::NetException);
    EXPECT_TRUE(CapturedLog::records().empty());
}

TEST_F(UnixTransmitter, DestructionClosesTheSocketAndLeavesTheFile)
{
    {
        const Poco::SharedPtr<IPCUnixTransmitter> transmitter(new IPCUnixTransmitter(folder.file("own")));
        EXPECT_TRUE(UnixSocket().send(folder.file("own"), "somebody"));
    }
    EXPECT_EQ(modeOf("own"), 0660U);
    EXPECT_FALSE(UnixSocket().send(folder.file("own"), "nobody"));
}

TEST_F(UnixTransmitter, DatagramArrivesWholeFromTheOwnPath)
{
    UnixSocket peer(folder.file("peer"));
    IPCUnixTransmitter transmitter(folder.file("own"));
    const std::string message = bytes("\0message\0") + std::string(21399, 'x');

    EXPECT_EQ(sendText(transmitter, message, "peer"), 21408);
    EXPECT_EQ(peer.receive(), message);
    EXPECT_EQ(peer.sender(), folder.file("own"));
}

TEST_F(UnixTransmitter, WhatCannotBeSentFailsAtOnceAndIsLogged)
{
    IPCUnixTransmitter transmitter(folder.file("own"));
    {
        const IPCUnixTransmitter gone(folder.file("gone"));
    }
    const UnixSocket peer(folder.file("peer"));
    const std::pair<std::string, std::string> unsendable[] = {
        {"x", "missing"}, {"x", "gone"}, {std::string(8U << 20U, 'x'), "peer"}};
    for (const auto& [text, destination] : unsendable) {
        SCOPED_TRACE(destination);
        EXPECT_EQ(sendText(transmitter, text, destination), -1);
        const std::string line = onlyLine(SOURCE, 3, "sendTo fail:%s.");
        EXPECT_THAT(line, StartsWith("sendTo fail:"));
        EXPECT_GT(line.size(), sizeof "sendTo fail:.");
        CapturedLog::clear();
    }
}

TEST_F(UnixTransmitter, FullQueueOfThePeerFailsAtOnceAndIsOverWhenItEmpties)
{
    UnixSocket peer(folder.file("peer"));
    IPCUnixTransmitter transmitter(folder.file("own"));
    const std::string message(21408, 'x');
    int sent = 0;
    while (sendText(transmitter, message, "peer") == 21408) {
        ASSERT_LT(++sent, 100000);
    }
    EXPECT_GT(sent, 0);
    EXPECT_THAT(onlyLine(SOURCE, 3, "sendTo fail:%s."), StartsWith("sendTo fail:"));

    EXPECT_EQ(peer.receive(), message);
    EXPECT_EQ(sendText(transmitter, message, "peer"), 21408);
}

TEST_F(UnixTransmitter, ReceiveTakesOneDatagramEach)
{
    IPCUnixTransmitter transmitter(folder.file("own"));
    const UnixSocket peer;
    ASSERT_TRUE(peer.send(folder.file("own"), "first"));
    ASSERT_TRUE(peer.send(folder.file("own"), ""));
    ASSERT_TRUE(peer.send(folder.file("own"), "third!"));
    char buffer[100] = {};

    EXPECT_EQ(transmitter.receiveBytes(buffer, sizeof buffer), 5);
    EXPECT_STREQ(buffer, "first");
    EXPECT_EQ(transmitter.receiveBytes(buffer, sizeof buffer), 0);
    EXPECT_EQ(transmitter.receiveBytes(buffer, sizeof buffer), 6);
    EXPECT_STREQ(buffer, "third!");
}

TEST_F(UnixTransmitter, ReceiveCutsALongDatagramAndTellsTheCutLength)
{
    IPCUnixTransmitter transmitter(folder.file("own"));
    ASSERT_TRUE(UnixSocket().send(folder.file("own"), "0123456789"));
    ASSERT_TRUE(UnixSocket().send(folder.file("own"), "next"));
    char buffer[] = "....";

    EXPECT_EQ(transmitter.receiveBytes(buffer, 3), 3);
    EXPECT_STREQ(buffer, "012.");
    EXPECT_EQ(transmitter.receiveBytes(buffer, 4), 4);
    EXPECT_STREQ(buffer, "next");
}

TEST_F(UnixTransmitter, ReceiveWaitsForADatagram)
{
    IPCUnixTransmitter transmitter(folder.file("own"));
    std::atomic<bool> waiting{false};
    systemCalls().polling = [&waiting](const pollfd*, nfds_t, int) { waiting = true; };
    char buffer[10] = {};
    auto received = std::async(std::launch::async, [&] { return transmitter.receiveBytes(buffer, sizeof buffer); });
    ASSERT_TRUE(eventually([&waiting] { return waiting.load(); }));
    EXPECT_EQ(received.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    ASSERT_TRUE(UnixSocket().send(folder.file("own"), "late"));

    EXPECT_EQ(received.get(), 4);
    EXPECT_STREQ(buffer, "late");
}

TEST_F(UnixTransmitter, InterruptionEndsAReceive)
{
    IPCUnixTransmitter transmitter(folder.file("own"));
    IPCService::Interruption interruption;
    interruption.interrupt();
    const IPCService::Interruption::Scope scope(interruption);
    char buffer[10];
    EXPECT_THROW(transmitter.receiveBytes(buffer, sizeof buffer), IPCService::Interrupted);
    EXPECT_TRUE(CapturedLog::records().empty());
}

TEST_F(UnixTransmitter, FailedReceiveAndPollAreLoggedAndOverAfterwards)
{
    IPCUnixTransmitter transmitter(folder.file("own"));
    ASSERT_TRUE(UnixSocket().send(folder.file("own"), "text"));
    char buffer[10] = {};
    {
        const NoSocket broken(transmitter.descriptor());
        EXPECT_EQ(transmitter.PollRead(1, 0), 0);
        EXPECT_EQ(transmitter.receiveBytes(buffer, sizeof buffer), -1);
    }
    EXPECT_THAT(onlyLine(SOURCE, 3, "PollRead fail:%s."), StartsWith("PollRead fail:"));
    EXPECT_THAT(onlyLine(SOURCE, 3, "receiveBytes fail:%s."), StartsWith("receiveBytes fail:"));
    EXPECT_NE(transmitter.PollRead(20, 0), 0);
    EXPECT_EQ(transmitter.receiveBytes(buffer, sizeof buffer), 4);
}

TEST_F(UnixTransmitter, PollTellsWhetherADatagramWaitsAndLeavesIt)
{
    IPCUnixTransmitter transmitter(folder.file("own"));
    EXPECT_EQ(transmitter.PollRead(0, 0), 0);
    ASSERT_TRUE(UnixSocket().send(folder.file("own"), "text"));

    EXPECT_EQ(transmitter.PollRead(20, 0), 1);
    EXPECT_EQ(transmitter.PollRead(0, 0), 1);
    char buffer[10] = {};
    EXPECT_EQ(transmitter.receiveBytes(buffer, sizeof buffer), 4);
    EXPECT_TRUE(CapturedLog::records().empty());
}

TEST_F(UnixTransmitter, PollWaitsSecondsAndMicroseconds)
{
    IPCUnixTransmitter transmitter(folder.file("own"));
    const Stopwatch stopwatch;
    EXPECT_EQ(transmitter.PollRead(0, 60000), 0);
    EXPECT_GE(stopwatch.elapsed(), std::chrono::milliseconds(55));
    EXPECT_LT(stopwatch.elapsed(), atMost(std::chrono::seconds(10)));
    const Stopwatch longer;
    EXPECT_EQ(transmitter.PollRead(1, 0), 0);
    EXPECT_GE(longer.elapsed(), std::chrono::milliseconds(950));
}

TEST_F(UnixTransmitter, PollSurvivesExceptionsOfAnyKind)
{
    IPCUnixTransmitter transmitter(folder.file("own"));
    systemCalls().socketPoll = [] { throw std::bad_alloc(); };
    EXPECT_EQ(transmitter.PollRead(1, 0), 0);
    EXPECT_EQ(onlyLine(SOURCE, 3, "unknown exception"), "unknown exception");
}

TEST_F(UnixTransmitter, ConnectedSendAndReceiveWithSenderAreNotOffered)
{
    IPCUnixTransmitter transmitter(folder.file("own"));
    ASSERT_TRUE(UnixSocket().send(folder.file("own"), "text"));
    EXPECT_EQ(transmitter.sendBytes("x", 1), -1);
    EXPECT_EQ(onlyLine(SOURCE, 3, "unix socket not support this method!"), "unix socket not support this method!");
    CapturedLog::clear();
    char buffer[10];
    SocketAddress sender;
    EXPECT_EQ(transmitter.receiveFrom(buffer, sizeof buffer, sender), -1);
    EXPECT_EQ(onlyLine(SOURCE, 3, "unix socket not support this method!"), "unix socket not support this method!");
    EXPECT_NE(transmitter.PollRead(0, 0), 0) << "the datagram must stay";
}

TEST_F(UnixTransmitter, ClosedSocketFailsAtOnceInEveryOperation)
{
    IPCUnixTransmitter transmitter(folder.file("own"));
    ASSERT_EQ(::close(transmitter.descriptor()), 0);
    char buffer[10] = {};
    EXPECT_EQ(transmitter.receiveBytes(buffer, sizeof buffer), -1);
    EXPECT_EQ(transmitter.PollRead(3600, 0), 0);
    EXPECT_EQ(transmitter.sendTo("text", 4, address("peer")), -1);
    onlyLine(SOURCE, 3, "receiveBytes fail:%s.");
    onlyLine(SOURCE, 3, "PollRead fail:%s.");
    onlyLine(SOURCE, 3, "sendTo fail:%s.");
}

TEST_F(UnixTransmitter, SendAgainSendsAndLogsNoFailure)
{
    UnixSocket peer(folder.file("peer"));
    IPCUnixTransmitter transmitter(folder.file("own"));
    EXPECT_EQ(transmitter.sendAgain("text", 4, address("peer")), 4);
    EXPECT_EQ(peer.receive(), "text");
    EXPECT_EQ(transmitter.sendAgain("text", 4, address("nobody")), -1);
    EXPECT_TRUE(CapturedLog::records().empty());
}

TEST_F(UnixTransmitter, SenderOfTheNextDatagramIsToldAndTheDatagramStays)
{
    IPCUnixTransmitter transmitter(folder.file("own"));
    EXPECT_TRUE(IPCService::senderOfNextDatagram(transmitter.descriptor()) == "");
    char buffer[10] = {};
    for (const std::string datagram : {"", "one"}) {
        ASSERT_TRUE(UnixSocket(folder.file("peer")).send(folder.file("own"), datagram));
        EXPECT_TRUE(IPCService::senderOfNextDatagram(transmitter.descriptor()) == folder.file("peer"));
        EXPECT_EQ(transmitter.receiveBytes(buffer, sizeof buffer), datagram.size());
    }
    ASSERT_TRUE(UnixSocket().send(folder.file("own"), "two"));
    EXPECT_TRUE(IPCService::senderOfNextDatagram(transmitter.descriptor()) == "");
    EXPECT_EQ(transmitter.receiveBytes(buffer, sizeof buffer), 3);
}

}  // namespace
