#include "media_server/IPCService/Public/IPCServiceOldProtocol.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>

#include "media_server/IPCService/Public/IPCUnixTransmitter.h"
#include "support/captured_log.h"
#include "support/raw_bytes.h"
#include "support/temp_folder.h"
#include "support/unix_socket.h"

namespace {

using IPCService::IPCServiceOldProtocol;
using IPCService::IPCUnixTransmitter;

QL_CMD_TYPE command(std::uint32_t code)
{
    return static_cast<QL_CMD_TYPE>(code);
}

MSG_DATA messageOf(const std::string& bytes)
{
    MSG_DATA message{};
    EXPECT_EQ(bytes.size(), sizeof message);
    std::memcpy(&message, bytes.data(), bytes.size());
    return message;
}

class OldProtocol : public testing::Test
{
protected:
    TempFolder folder;
    UnixSocket peer{folder.file("peer")};
    IPCUnixTransmitter transmitter{folder.file("own")};
    IPCServiceOldProtocol protocol{&transmitter};
    MSG_DATA message{};
};

static_assert(std::is_base_of<IPCService::IPCServiceCommProtocol<QL_CMD_TYPE, MSG_DATA>, IPCServiceOldProtocol>::value,
              "interface");

/// Notes the calls, and answers with numbers that no socket gives.
class Transmitter : public IPCService::IPCServiceTransmitter
{
public:
    int sendBytes(const void* /*buffer*/, int /*length*/) override { return 1; }
    int sendTo(const void* buffer, int length, const Poco::Net::SocketAddress& address) override
    {
        sent.assign(static_cast<const char*>(buffer), static_cast<std::size_t>(length));
        destination = address.toString();
        return 4711;
    }
    int receiveBytes(void* buffer, int length) override
    {
        asked = length;
        std::memcpy(buffer, answer.data(), answer.size());
        return result;
    }
    int receiveFrom(void* /*buffer*/, int /*length*/, Poco::Net::SocketAddress& /*address*/) override { return 1; }
    int PollRead(long seconds, long microseconds) override
    {
        polled = {seconds, microseconds};
        return 12;
    }

    std::string sent;
    std::string destination;
    int asked = 0;
    std::string answer;
    int result = 0;
    std::pair<long, long> polled;
};

TEST_F(OldProtocol, SendCarriesTheWholeMessage)
{
    std::string wire(21408, '\0');
    for (std::size_t i = 0; i < wire.size(); ++i) {
        wire[i] = static_cast<char>(i % 251);
    }
    // Neither the command nor the destination in the message counts.
    EXPECT_EQ(protocol.send(folder.file("peer"), command(1), messageOf(wire)), 21408);
    EXPECT_EQ(peer.receive(), wire);
    EXPECT_EQ(peer.sender(), folder.file("own"));
}

TEST_F(OldProtocol, ReceiveTakesTheWholeMessageAndItsCommand)
{
    std::string wire(21408, 'w');
    putNumber<std::uint32_t>(wire, 164, 4000000000U);
    ASSERT_TRUE(peer.send(folder.file("own"), wire));
    QL_CMD_TYPE received = command(7020);

    EXPECT_EQ(protocol.receive(received, message), 21408);
    EXPECT_EQ(static_cast<std::uint32_t>(received), 4000000000U);
    EXPECT_EQ(bytesOf(message), wire);
}

TEST_F(OldProtocol, ShortReplyYieldsTheCommandThatTheBufferHeld)
{
    std::string before(21408, '\0');
    putNumber<std::uint32_t>(before, 164, 7021);
    for (const std::size_t size : {0U, 1U, 164U, 168U}) {
        message = messageOf(before);
        ASSERT_TRUE(peer.send(folder.file("own"), std::string(size, 's')));
        QL_CMD_TYPE received = command(1);

        EXPECT_EQ(protocol.receive(received, message), static_cast<int>(size));
        EXPECT_EQ(static_cast<std::uint32_t>(received), size < 168 ? 7021U : 0x73737373U);
        EXPECT_EQ(bytesOf(message), std::string(size, 's') + before.substr(size));
    }
}

TEST_F(OldProtocol, ReceiveCutsWhatIsTooLong)
{
    ASSERT_TRUE(peer.send(folder.file("own"), std::string(30000, 'x')));
    QL_CMD_TYPE received = command(1);
    EXPECT_EQ(protocol.receive(received, message), 21408);
    EXPECT_EQ(bytesOf(message), std::string(21408, 'x'));
}

TEST(OldProtocolTransmitter, ResultsAndArgumentsPassThrough)
{
    Transmitter transmitter;
    IPCServiceOldProtocol protocol(&transmitter);
    const MSG_DATA message{};

    EXPECT_EQ(protocol.send("/tmp/II", command(1), message), 4711);
    EXPECT_EQ(transmitter.sent, std::string(21408, '\0'));
    EXPECT_EQ(transmitter.destination, "/tmp/II");
    EXPECT_EQ(protocol.poll(3, 45), 12);
    EXPECT_EQ(transmitter.polled, std::make_pair(3L, 45L));
}

TEST(OldProtocolTransmitter, FailedReceiveStillTakesTheCommandFromTheBuffer)
{
    Transmitter transmitter;
    transmitter.result = -1;
    IPCServiceOldProtocol protocol(&transmitter);
    std::string before(21408, '\0');
    putNumber<std::uint32_t>(before, 164, 7018);
    MSG_DATA message = messageOf(before);
    QL_CMD_TYPE received = command(1);

    EXPECT_EQ(protocol.receive(received, message), -1);
    EXPECT_EQ(transmitter.asked, 21408);
    EXPECT_EQ(static_cast<std::uint32_t>(received), 7018U);
}

}  // namespace
