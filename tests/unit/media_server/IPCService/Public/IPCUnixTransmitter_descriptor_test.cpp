#include <Poco/Net/SocketAddress.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "media_server/IPCService/Public/IPCUnixTransmitter.h"
#include "support/captured_log.h"
#include "support/log_line.h"
#include "support/temp_folder.h"
#include "support/unix_socket.h"
#include "support/waiting.h"

namespace {

using IPCService::IPCUnixTransmitter;

const char SOURCE[] = "media_server/IPCService/Public/IPCUnixTransmitter";

class TransmitterDescriptor : public testing::Test
{
protected:
    Poco::Net::SocketAddress address(const std::string& name) const
    {
        return Poco::Net::SocketAddress(Poco::Net::AddressFamily::UNIX_LOCAL, folder.file(name));
    }

    TempFolder folder;
};

TEST_F(TransmitterDescriptor, ClosedSocketFailsAtOnceInEveryOperation)
{
    IPCUnixTransmitter transmitter(folder.file("own"));
    ASSERT_EQ(::close(transmitter.descriptor()), 0);
    char buffer[10] = {};
    const Stopwatch stopwatch;
    EXPECT_EQ(transmitter.receiveBytes(buffer, sizeof buffer), -1);
    EXPECT_EQ(transmitter.PollRead(3600, 0), 0);
    EXPECT_EQ(transmitter.sendTo("text", 4, address("peer")), -1);
    EXPECT_LT(stopwatch.elapsed(), atMost(std::chrono::seconds(1)));
    onlyLine(SOURCE, 3, "receiveBytes fail:%s.");
    onlyLine(SOURCE, 3, "PollRead fail:%s.");
    onlyLine(SOURCE, 3, "sendTo fail:%s.");
}

TEST_F(TransmitterDescriptor, SendAgainSendsAndLogsNoFailure)
{
    UnixSocket peer(folder.file("peer"));
    IPCUnixTransmitter transmitter(folder.file("own"));
    EXPECT_EQ(transmitter.sendAgain("text", 4, address("peer")), 4);
    EXPECT_EQ(peer.receive(), "text");
    EXPECT_EQ(transmitter.sendAgain("text", 4, address("nobody")), -1);
    EXPECT_TRUE(CapturedLog::records().empty());
}

TEST_F(TransmitterDescriptor, SenderOfTheNextDatagramIsToldAndTheDatagramStays)
{
    IPCUnixTransmitter transmitter(folder.file("own"));
    EXPECT_TRUE(IPCService::senderOfNextDatagram(transmitter.descriptor()) == "");
    ASSERT_TRUE(UnixSocket(folder.file("peer")).send(folder.file("own"), "one"));
    ASSERT_TRUE(UnixSocket().send(folder.file("own"), "two"));
    EXPECT_TRUE(IPCService::senderOfNextDatagram(transmitter.descriptor()) == folder.file("peer"));
    char buffer[10] = {};
    EXPECT_EQ(transmitter.receiveBytes(buffer, sizeof buffer), 3);
    EXPECT_TRUE(IPCService::senderOfNextDatagram(transmitter.descriptor()) == "");
    EXPECT_EQ(transmitter.receiveBytes(buffer, sizeof buffer), 3);
}

}  // namespace
