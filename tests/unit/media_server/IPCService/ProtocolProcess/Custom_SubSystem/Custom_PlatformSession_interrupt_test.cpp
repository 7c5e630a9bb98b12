#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "http_request_fixture.h"
#include "media_server/IPCService/Public/Interruption.h"

using IPCService::Interrupted;
using IPCService::Interruption;

namespace {

/** A request on a thread that is interrupted while it waits for the platform. */
class InterruptedRequestTest : public HttpRequestTest
{
protected:
    /** Interrupts the request once it waits; it must end within a second, by an interruption, without a word. */
    void expectQuickEnd(std::uint16_t port, const std::function<bool()>& waits, std::size_t bodySize = 2)
    {
        Interruption interruption;
        std::atomic<bool> interrupted{false};
        std::thread thread([&] {
            const Interruption::Scope scope(interruption);
            try {
                post(port, std::string(bodySize, 'b'));
            } catch (const Interrupted&) {
                interrupted = true;
            }
        });
        EXPECT_TRUE(eventually(waits));
        const Stopwatch watch;
        interruption.interrupt();
        thread.join();
        EXPECT_LT(watch.elapsed(), atMost(std::chrono::seconds(1)));
        EXPECT_TRUE(interrupted);
        EXPECT_EQ(countLogged("Custom_HttpParam", "SendMsgAndRecvResponse err:%s"), 0);
    }
};

TlsServer::Script silent()
{
    return [](TlsConnection& connection, const std::string&) { connection.waitUntilServerEnds(); };
}

TEST_F(InterruptedRequestTest, WhileItConnects)
{
    const FullListener listener;
    expectQuickEnd(listener.port(), [&] { return listener.holdsAnother(); });
}

TEST_F(InterruptedRequestTest, WhileItShakesHands)
{
    TlsServer::Options options;
    options.handshake = false;
    const TlsServer server(silent(), options);
    expectQuickEnd(server.port(), [&] { return server.accepted() == 1; });
}

TEST_F(InterruptedRequestTest, WhileItSends)
{
    TlsServer::Options options;
    options.readRequests = false;
    const TlsServer server(silent(), options);
    expectQuickEnd(
        server.port(), [&] { return server.requests().size() == 1; }, 64U << 20);
}

TEST_F(InterruptedRequestTest, WhileItWaitsForTheAnswer)
{
    const TlsServer server(silent());
    expectQuickEnd(server.port(), [&] { return server.requests().size() == 1; });
}

TEST_F(InterruptedRequestTest, WhileItReadsTheBody)
{
    std::atomic<bool> halfSent{false};
    const TlsServer server([&](TlsConnection& connection, const std::string&) {
        connection.send("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\nhalf");
        halfSent = true;
        connection.waitUntilServerEnds();
    });
    expectQuickEnd(server.port(), [&] { return halfSent.load(); });
}

TEST_F(InterruptedRequestTest, BeforeItBegins)
{
    const TlsServer server(silent());
    expectQuickEnd(server.port(), [] { return true; });
}

}  // namespace
