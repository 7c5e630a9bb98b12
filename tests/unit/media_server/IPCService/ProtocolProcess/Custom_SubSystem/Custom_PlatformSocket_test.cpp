#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PlatformSocket.h"

#include <Poco/Exception.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/SSLManager.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ready_service.h"
#include "slow_relay.h"
#include "support/system_calls.h"
#include "support/tls_server.h"
#include "support/waiting.h"

using IPCService::MetaDataGW::PlatformSocket;

namespace {

/** A connection with the service's own TLS settings to a server in this process. */
class PlatformSocketTest : public testing::Test
{
protected:
    /** @return what a server sends, with "!" behind it when its end is a failure */
    static std::string receiveAll(const TlsServer& server)
    {
        PlatformSocket socket("127.0.0.1", server.port());
        socket.send("hello\r\n\r\n");
        std::string received;
        try {
            std::array<char, 5> buffer{};
            while (const std::size_t count = socket.receive(buffer.data(), buffer.size())) {
                received.append(buffer.data(), count);
            }
        } catch (const Poco::Exception&) {
            received += "!";
        }
        return received;
    }

    ReadyService m_service;
};

TEST_F(PlatformSocketTest, TellsAnAnnouncedEnd)
{
    const TlsServer server(always("some bytes"));
    EXPECT_EQ(receiveAll(server), "some bytes");
    EXPECT_EQ(server.requests(), std::vector<std::string>{"hello\r\n\r\n"});
}

class UnannouncedEndTest : public PlatformSocketTest, public testing::WithParamInterface<bool>
{
protected:
    UnannouncedEndTest() { systemCalls().tlsEndWithoutNoticeFails = GetParam(); }
};

TEST_P(UnannouncedEndTest, IsAFailure)
{
    const TlsServer server([](TlsConnection& connection, const std::string&) {
        connection.send("some bytes");
        connection.hangUp();
    });
    EXPECT_EQ(receiveAll(server), "some bytes!");
}

TEST_P(UnannouncedEndTest, BeforeTheFirstByteIsOneToo)
{
    const TlsServer server([](TlsConnection& connection, const std::string&) { connection.hangUp(); });
    EXPECT_EQ(receiveAll(server), "!");
}

INSTANTIATE_TEST_SUITE_P(PlatformSocketTest, UnannouncedEndTest, testing::ValuesIn(endsWithoutNotice()));

TEST_F(PlatformSocketTest, UnannouncedEndHasOneTextWithEveryVersion)
{
    const TlsServer server([](TlsConnection& connection, const std::string&) { connection.hangUp(); });
    PlatformSocket socket("127.0.0.1", server.port());
    socket.send("hello\r\n\r\n");
    char buffer[5];
    try {
        socket.receive(buffer, sizeof(buffer));
        FAIL() << "received";
    } catch (const Poco::Exception& exc) {
        EXPECT_EQ(exc.displayText(), "SSL connection unexpectedly closed: no close_notify");
    }
}

TEST_F(PlatformSocketTest, RecordThatComesInPiecesMayTakeLongerThanOneWait)
{
    std::atomic<bool> slow{false};
    const TlsServer server([&slow](TlsConnection& connection, const std::string&) {
        slow = true;
        connection.send(std::string(9000, 'r'));
    });
    const SlowRelay relay(server.port(), slow);
    PlatformSocket socket("127.0.0.1", relay.port());
    socket.send("hello\r\n\r\n");
    const Stopwatch stopwatch;
    std::size_t received = 0;
    std::array<char, 1000> buffer{};
    while (received < 9000) {
        const std::size_t count = socket.receive(buffer.data(), buffer.size());
        ASSERT_GT(count, 0U);
        received += count;
    }
    EXPECT_GE(stopwatch.elapsed(), std::chrono::milliseconds(5500)) << "it came too quickly to show anything";
}

TEST_F(PlatformSocketTest, NoServerNameIsSentForAnAddress)
{
    const TlsServer server(always(""));
    PlatformSocket("127.0.0.1", server.port()).send("\r\n\r\n");
    EXPECT_TRUE(eventually([&] { return server.requests().size() == 1; }));
    EXPECT_EQ(server.handshakes().back().serverName, "");
    PlatformSocket("localhost", server.port()).send("\r\n\r\n");
    EXPECT_TRUE(eventually([&] { return server.requests().size() == 2; }));
    EXPECT_EQ(server.handshakes().back().serverName, "localhost");
    PlatformSocket("127.1", server.port()).send("\r\n\r\n");
    EXPECT_TRUE(eventually([&] { return server.requests().size() == 3; }));
    EXPECT_EQ(server.handshakes().back().serverName, "") << "an address in the resolver's eyes";
    PlatformSocket("::ffff:127.0.0.1", server.port()).send("\r\n\r\n");
    EXPECT_TRUE(eventually([&] { return server.requests().size() == 4; }));
    EXPECT_EQ(server.handshakes().back().serverName, "") << "an address with letters";
}

TEST_F(PlatformSocketTest, WaitsForWhatComesNextAndNothingElse)
{
    std::atomic<bool> waits{false};
    const TlsServer server([&waits](TlsConnection& connection, const std::string&) {
        EXPECT_TRUE(eventually([&waits] { return waits.load(); }));
        connection.send("some bytes");
    });
    std::vector<short> events;
    int longest = 0;
    int noDelay = 0;
    bool sent = false;
    systemCalls().polling = [&, client = std::this_thread::get_id()](const pollfd* waited, nfds_t, int milliseconds) {
        if (std::this_thread::get_id() == client) {
            events.push_back(waited->events);
            longest = std::max(longest, milliseconds);
            socklen_t size = sizeof(noDelay);
            EXPECT_EQ(::getsockopt(waited->fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, &size), 0);
            waits = sent && waited->events == POLLIN;
        }
    };
    PlatformSocket socket("127.0.0.1", server.port());
    socket.send("hello\r\n\r\n");
    sent = true;
    std::array<char, 100> buffer{};
    EXPECT_EQ(socket.receive(buffer.data(), buffer.size()), 10U);
    systemCalls().polling = nullptr;
    events.erase(std::unique(events.begin(), events.end()), events.end());
    EXPECT_EQ(events, (std::vector<short>{POLLOUT, POLLIN}));
    EXPECT_LE(longest, 5000);
    EXPECT_NE(noDelay, 0);
}

TEST_F(PlatformSocketTest, SendsOnBehindWhatTheLibraryTook)
{
    SSL_CTX_set_mode(Poco::Net::SSLManager::instance().defaultClientContext()->sslContext(),
                     SSL_MODE_ENABLE_PARTIAL_WRITE);
    const TlsServer server(always(""));
    const std::string request = "POST / HTTP/1.1\r\nContent-Length: 100000\r\n\r\n" + std::string(100000, 'b');
    PlatformSocket("127.0.0.1", server.port()).send(request);
    EXPECT_TRUE(eventually([&] { return server.requests() == std::vector<std::string>{request}; }));
}

TEST_F(PlatformSocketTest, SaysWithWhomAConnectFailed)
{
    const std::uint16_t port = unusedPort();
    try {
        const PlatformSocket socket("127.0.0.1", port);
        FAIL() << "connected";
    } catch (const Poco::Exception& exc) {
        EXPECT_EQ(exc.displayText(), "Connection refused: 127.0.0.1:" + std::to_string(port));
    }
}

TEST_F(PlatformSocketTest, SaysThatAConnectTimedOut)
{
    const FullListener listener;
    try {
        const PlatformSocket socket("127.0.0.1", listener.port());
        FAIL() << "connected";
    } catch (const Poco::Exception& exc) {
        EXPECT_EQ(exc.displayText(), "Timeout: connect timed out: 127.0.0.1:" + std::to_string(listener.port()));
    }
}

TEST_F(PlatformSocketTest, HandshakeDoesNotBeginToWaitWhenItsTimeIsOver)
{
    const Poco::Net::ServerSocket silent(Poco::Net::SocketAddress("127.0.0.1", 0));
    // Other threads of this program wait for something else.
    systemCalls().poll = [](pollfd* waited, nfds_t, int) -> std::optional<int> {
        if (waited->events != POLLOUT) {
            return std::nullopt;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5100));  // pause: connecting takes all the time there is
        waited->revents = waited->events;
        return 1;
    };
    EXPECT_THROW(PlatformSocket("127.0.0.1", silent.address().port()), Poco::TimeoutException);
}

/** What a connect to a server that answers its first bytes so comes to. */
std::string failureOf(const std::string& answer)
{
    Poco::Net::ServerSocket listener(Poco::Net::SocketAddress("127.0.0.1", 0));
    std::thread server([&] {
        Poco::Net::StreamSocket connection = listener.acceptConnection();
        std::array<char, 1000> hello{};
        connection.receiveBytes(hello.data(), static_cast<int>(hello.size()));
        connection.sendBytes(answer.data(), static_cast<int>(answer.size()));
        connection.shutdownSend();
        connection.receiveBytes(hello.data(), static_cast<int>(hello.size()));
    });
    std::string failure;
    try {
        const PlatformSocket socket("127.0.0.1", listener.address().port());
    } catch (const Poco::Exception& exc) {
        failure = exc.displayText();
    }
    server.join();
    return failure;
}

TEST_F(PlatformSocketTest, NoticeOfTheEndInPlaceOfAHandshakeIsAFailure)
{
    EXPECT_EQ(failureOf(std::string("\x15\x03\x03\0\2\1\0", 7)), "SSL connection unexpectedly closed");
}

TEST_F(PlatformSocketTest, TellsThePeerOfItsEnd)
{
    std::atomic<bool> announced{false};
    const TlsServer server([&](TlsConnection& connection, const std::string&) {
        connection.readRequest();
        announced = connection.endIsAnnounced();
    });
    PlatformSocket("127.0.0.1", server.port()).send("\r\n\r\n");
    EXPECT_TRUE(eventually([&] { return announced.load(); }));
}

}  // namespace
