#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PlatformSession.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "http_request_fixture.h"
#include "interrupted_call.h"

using std::chrono::milliseconds;

namespace {

/** Requests to platforms that read them badly. */
class PlatformSessionTest : public HttpRequestTest
{
protected:
    /** A request of that many megabytes, to a server that never reads by itself, must fail by its time-out of 5 s. */
    void expectTimeout(TlsServer::Script script, std::size_t megabytes)
    {
        const TlsServer server(std::move(script), notReading());
        const Stopwatch watch;
        EXPECT_EQ(post(server.port(), std::string(megabytes << 20, 'b')), 400);
        EXPECT_GE(watch.elapsed(), milliseconds(4900));
        EXPECT_LE(watch.elapsed(), atMost(milliseconds(15000)))
            << "half of what the slow reader takes for the whole request";
        EXPECT_EQ(m_response, "");
        EXPECT_EQ(loggedBy("Custom_HttpParam").back(),
                  error("SendMsgAndRecvResponse err:%s", "SendMsgAndRecvResponse err:Timeout"));
    }

    static TlsServer::Options notReading()
    {
        TlsServer::Options options;
        options.readRequests = false;
        return options;
    }
};

TEST_F(PlatformSessionTest, RequestLineHasEscapesForWhateverIsNotPrintableAscii)
{
    const TlsServer server(always(httpAnswer("")));
    EXPECT_EQ(post(server.port(), "{}", "/ !~\x01\x1F\x7F\x80\xFF\r\n"), 200);
    ASSERT_EQ(server.requests().size(), 1U);
    const std::string request = server.requests()[0];
    EXPECT_EQ(request.substr(0, request.find('\n')), "POST /%20!~%01%1F%7F%80%FF%0D%0A HTTP/1.1\r");
    EXPECT_NE(request.find("\r\nConnection: Keep-Alive\r\n"), std::string::npos);
}

TEST_F(PlatformSessionTest, RequestThatOffersNoMoreSaysSoBehindItsLength)
{
    const TlsServer server(always(httpAnswer("")));
    const std::string host = "127.0.0.1";
    const std::string method = "POST";
    const std::string path = "/";
    const std::string type = "text/plain";
    Poco::Net::HTTPResponse response;
    IPCService::MetaDataGW::exchangeWithPlatform({host, server.port(), method, path, type, false}, "{}", response);
    ASSERT_EQ(server.requests().size(), 1U);
    EXPECT_NE(server.requests()[0].find("\r\nContent-Length: 2\r\nConnection: Close\r\n"), std::string::npos);
}

TEST_F(PlatformSessionTest, ServerThatDoesNotReadTheRequestEndsAfter5Seconds)
{
    expectTimeout([](TlsConnection& connection, const std::string&) { connection.waitUntilServerEnds(); }, 64);
}

TEST_F(PlatformSessionTest, ServerThatReadsTheRequestTooSlowlyEndsAfter5Seconds)
{
    expectTimeout(
        [](TlsConnection& connection, const std::string&) {
            // Often enough that no single wait of the client is long: in 5 s 5 MB, and at most 10 MB are on their way.
            while (connection.swallow(256U << 10) && !connection.clientLeavesWithin(milliseconds(250))) {
            }
        },
        32);
}

TEST_F(PlatformSessionTest, InterruptionEndsTheSendingOfARequestWithoutAWord)
{
    const TlsServer server([](TlsConnection& connection, const std::string&) { connection.waitUntilServerEnds(); },
                           notReading());
    expectInterrupted([&] { post(server.port(), std::string(64U << 20, 'b')); },
                      [&] { return server.requests().size() == 1; });
    EXPECT_EQ(countLogged("Custom_HttpParam", "SendMsgAndRecvResponse err:%s"), 0);
}

}  // namespace
