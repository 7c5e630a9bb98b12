#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PlatformSession.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <string>

#include "http_request_fixture.h"

using std::chrono::milliseconds;

namespace {

/** How failing, slow and odd platforms end a request. */
class PlatformSessionTest : public HttpRequestTest
{
protected:
    /** The request must fail by its time-out of 5 s, not earlier, and at most a second later. */
    void expectTimeout(std::uint16_t port)
    {
        const Stopwatch watch;
        const int status = post(port);
        EXPECT_GE(watch.elapsed(), milliseconds(4900));
        EXPECT_LE(watch.elapsed(), atMost(milliseconds(6000)));
        expectFailure(status, "Timeout");
    }
};

TlsServer::Script holdSilent()
{
    return [](TlsConnection& connection, const std::string&) { connection.waitUntilClientLeaves(); };
}

/** Sends the pieces one after the other with a pause before each. */
TlsServer::Script inPieces(std::vector<std::string> pieces, milliseconds pause)
{
    return [pieces = std::move(pieces), pause](TlsConnection& connection, const std::string&) {
        for (const std::string& piece : pieces) {
            if (connection.clientLeavesWithin(pause) || !connection.send(piece)) {
                return;
            }
        }
    };
}

TEST_F(PlatformSessionTest, RefusedConnection)
{
    expectFailure(post(unusedPort()), "Connection refused");
}

TEST_F(PlatformSessionTest, UnknownHost)
{
    m_host = "no.such.host.invalid";
    const int status = post(443);
    EXPECT_EQ(status, 400);
    EXPECT_EQ(countLogged("Custom_HttpParam", "SendMsgAndRecvResponse err:%s"), 1);
}

TEST_F(PlatformSessionTest, HostName)
{
    m_host = "localhost";
    const TlsServer server(always(httpAnswer("found")));
    EXPECT_EQ(post(server.port()), 200);
    EXPECT_EQ(m_response, "found");
}

TEST_F(PlatformSessionTest, RequestLineHasEscapesForWhateverIsNotPrintableAscii)
{
    const TlsServer server(always(httpAnswer("")));
    EXPECT_EQ(post(server.port(), "{}", "/ !~\x01\x1F\x7F\x80\xFF\r\n"), 200);
    ASSERT_EQ(server.requests().size(), 1U);
    const std::string request = server.requests()[0];
    EXPECT_EQ(request.substr(0, request.find('\n')), "POST /%20!~%01%1F%7F%80%FF%0D%0A HTTP/1.1\r");
}

TEST_F(PlatformSessionTest, ServerThatNeverAnswersEndsAfter5Seconds)
{
    const TlsServer server(holdSilent());
    expectTimeout(server.port());
    EXPECT_EQ(server.accepted(), 1);
}

TEST_F(PlatformSessionTest, ServerThatNeverShakesHandsEndsAfter5Seconds)
{
    TlsServer::Options options;
    options.handshake = false;
    const TlsServer server(holdSilent(), options);
    expectTimeout(server.port());
    EXPECT_EQ(server.accepted(), 1);
}

TEST_F(PlatformSessionTest, ServerThatDoesNotAcceptEndsAfter5Seconds)
{
    const FullListener listener;
    expectTimeout(listener.port());
}

TEST_F(PlatformSessionTest, ServerThatStopsInTheMiddleEndsAfter5Seconds)
{
    const TlsServer server([](TlsConnection& connection, const std::string&) {
        connection.send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf");
        connection.waitUntilClientLeaves();
    });
    expectTimeout(server.port());
}

TEST_F(PlatformSessionTest, ServerThatDoesNotReadTheRequestEndsAfter5Seconds)
{
    TlsServer::Options options;
    options.readRequests = false;
    const TlsServer server([](TlsConnection& connection, const std::string&) { connection.waitUntilServerEnds(); },
                           options);
    const Stopwatch watch;
    const int status = post(server.port(), std::string(64U << 20, 'b'));
    EXPECT_GE(watch.elapsed(), milliseconds(4900));
    EXPECT_LE(watch.elapsed(), atMost(milliseconds(7000)));
    expectFailure(status, "Timeout");
}

TEST_F(PlatformSessionTest, ServerThatReadsTheRequestTooSlowlyEndsAfter5Seconds)
{
    TlsServer::Options options;
    options.readRequests = false;
    const TlsServer server(
        [](TlsConnection& connection, const std::string&) {
            // Often enough that no single wait of the client is long: in 5 s 5 MB, and at most 10 MB are on their way.
            while (connection.swallow(256U << 10) && !connection.clientLeavesWithin(milliseconds(250))) {
            }
        },
        options);
    const Stopwatch watch;
    const int status = post(server.port(), std::string(32U << 20, 'b'));
    EXPECT_GE(watch.elapsed(), milliseconds(4900));
    EXPECT_LE(watch.elapsed(), atMost(milliseconds(7000)));
    expectFailure(status, "Timeout");
}

TEST_F(PlatformSessionTest, TheTimeoutIsForEachWaitNotForTheWhole)
{
    const TlsServer server(
        inPieces({"HTTP/1.1 200 OK\r\nContent-", "Length: 8\r\n\r\n", "abcd", "efgh"}, milliseconds(1500)));
    const Stopwatch watch;
    EXPECT_EQ(post(server.port()), 200);
    EXPECT_EQ(m_response, "abcdefgh");
    EXPECT_GE(watch.elapsed(), milliseconds(6000));
}

TEST_F(PlatformSessionTest, AnswerThatTricklesByteByByteComesWhole)
{
    std::vector<std::string> pieces;
    for (const char byte : httpAnswer("trickle")) {
        pieces.emplace_back(1, byte);
    }
    const TlsServer server(inPieces(pieces, milliseconds(1)));
    EXPECT_EQ(post(server.port()), 200);
    EXPECT_EQ(m_response, "trickle");
}

TEST_F(PlatformSessionTest, AnswerThatIsNotHttp)
{
    const TlsServer server(always("SSH-2.0-OpenSSH_9.2\r\nnot for you\r\n\r\n"));
    expectFailure(post(server.port()), "");
}

TEST_F(PlatformSessionTest, AnswerThatIsBinary)
{
    std::string bytes;
    for (int i = 0; i < 4096; ++i) {
        bytes += static_cast<char>(i * 7);
    }
    const TlsServer server(always(bytes));
    expectFailure(post(server.port()), "");
}

TEST_F(PlatformSessionTest, AnswerThatIsEmpty)
{
    const TlsServer server(always(""));
    expectFailure(post(server.port()), "");
}

TEST_F(PlatformSessionTest, HeaderThatEndsEarly)
{
    const TlsServer server(always("HTTP/1.1 200 OK\r\nContent-Len"));
    EXPECT_EQ(post(server.port()), 400);
}

TEST_F(PlatformSessionTest, HeaderWithoutEnd)
{
    const TlsServer server([](TlsConnection& connection, const std::string&) {
        connection.send("HTTP/1.1 200 OK\r\n");
        while (connection.send("X-Header: " + std::string(1000, 'x') + "\r\n")) {
        }
    });
    EXPECT_EQ(post(server.port()), 400);
    EXPECT_EQ(countLogged("Custom_HttpParam", "SendMsgAndRecvResponse err:%s"), 1);
}

TEST_F(PlatformSessionTest, BodyShorterThanItsLength)
{
    const TlsServer server(always("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf"));
    expectFailure(post(server.port()), "");
}

TEST_F(PlatformSessionTest, ChunkedBodyWithoutItsEnd)
{
    const TlsServer server(always("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nfirst\r\n"));
    expectFailure(post(server.port()), "");
}

TEST_F(PlatformSessionTest, ChunkShorterThanItsLength)
{
    const TlsServer server(always("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n50\r\nfirst"));
    expectFailure(post(server.port()), "");
}

TEST_F(PlatformSessionTest, ChunkWithoutALength)
{
    const TlsServer server(
        always("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nfirst\r\nzz\r\nnext\r\n0\r\n\r\n"));
    expectFailure(post(server.port()), "");
}

TEST_F(PlatformSessionTest, LengthThatIsNoNumber)
{
    const TlsServer server(always("HTTP/1.1 200 OK\r\nContent-Length: many\r\n\r\nbody"));
    expectFailure(post(server.port()), "");
}

TEST_F(PlatformSessionTest, ResetInsteadOfAnAnswer)
{
    const TlsServer server([](TlsConnection& connection, const std::string&) { connection.reset(); });
    expectFailure(post(server.port()), "");
}

TEST_F(PlatformSessionTest, ResetInTheMiddleOfTheBody)
{
    const TlsServer server([](TlsConnection& connection, const std::string&) {
        connection.send("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\nhalf");
        connection.reset();
    });
    expectFailure(post(server.port()), "");
}

TEST_F(PlatformSessionTest, OnlyTls12IsSpoken)
{
    TlsServer::Options options;
    options.lowestVersion = TLS1_3_VERSION;
    options.highestVersion = TLS1_3_VERSION;
    const TlsServer server(always(httpAnswer("")), options);
    expectFailure(post(server.port()), "SSL");
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(PlatformSessionTest, Tls12IsChosenWhereTheServerOffersBoth)
{
    TlsServer::Options options;
    options.highestVersion = TLS1_3_VERSION;
    const TlsServer server(always(httpAnswer("")), options);
    EXPECT_EQ(post(server.port()), 200);
    EXPECT_EQ(server.lastVersion(), "TLSv1.2");
}

/** Standard input, output and error on pipes of the test's own. */
class ConsoleOnPipes
{
public:
    ConsoleOnPipes()
    {
        for (int stream = 0; stream < 3; ++stream) {
            EXPECT_EQ(pipe(m_pipes[static_cast<std::size_t>(stream)].data()), 0);
            m_saved[static_cast<std::size_t>(stream)] = dup(stream);
            dup2(m_pipes[static_cast<std::size_t>(stream)][stream == 0 ? 0 : 1], stream);
        }
        EXPECT_EQ(write(m_pipes[0][1], "y\n", 2), 2);
    }
    ~ConsoleOnPipes() { restore(); }
    ConsoleOnPipes(const ConsoleOnPipes&) = delete;
    ConsoleOnPipes& operator=(const ConsoleOnPipes&) = delete;

    void restore()
    {
        for (int stream = 0; stream < 3; ++stream) {
            dup2(m_saved[static_cast<std::size_t>(stream)], stream);
        }
    }

    /** Bytes that wait in the pipe of a stream. */
    int waiting(std::size_t stream) const
    {
        int count = -1;
        EXPECT_EQ(ioctl(m_pipes[stream][0], FIONREAD, &count), 0);
        return count;
    }

private:
    std::array<std::array<int, 2>, 3> m_pipes{};
    std::array<int, 3> m_saved{};
};

TEST_F(PlatformSessionTest, SelfSignedCertificateIsAcceptedWithoutAWordOnTheConsole)
{
    const TlsServer server(always(httpAnswer("")));
    ConsoleOnPipes console;
    const int status = post(server.port());
    std::fflush(nullptr);
    console.restore();
    EXPECT_EQ(status, 200);
    EXPECT_EQ(console.waiting(0), 2) << "standard input was read";
    EXPECT_EQ(console.waiting(1), 0) << "standard output was written to";
    EXPECT_EQ(console.waiting(2), 0) << "standard error was written to";
}

}  // namespace
