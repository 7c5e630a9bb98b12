#include <Poco/Exception.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <array>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PlatformSocket.h"
#include "ready_service.h"
#include "support/tls_server.h"

using IPCService::MetaDataGW::PlatformSocket;
using IPCService::MetaDataGW::ResumptionScope;
using Sessions = TlsServer::Options::Sessions;

namespace {

/** Connections one after the other, and what the server saw of their handshakes. */
class ResumptionTest : public testing::Test
{
protected:
    /** @return what the server sent, whole */
    static std::string exchange(const TlsServer& server)
    {
        PlatformSocket socket("127.0.0.1", server.port());
        socket.send("hello\r\n\r\n");
        std::string received;
        std::array<char, 100> buffer{};
        while (const std::size_t count = socket.receive(buffer.data(), buffer.size())) {
            received.append(buffer.data(), count);
        }
        return received;
    }

    /** @return a letter for each handshake: "f" full, "o" full although a session was offered, "r" resumed */
    static std::string handshakes(const TlsServer& server)
    {
        std::string letters;
        for (const TlsServer::Handshake& handshake : server.handshakes()) {
            letters += handshake.resumed ? 'r' : handshake.offered ? 'o' : 'f';
        }
        return letters;
    }

    ReadyService m_service;
};

class ResumingServerTest : public ResumptionTest, public testing::WithParamInterface<Sessions>
{
protected:
    ResumingServerTest() { m_options.sessions = GetParam(); }

    TlsServer::Options m_options;
};

TEST_P(ResumingServerTest, ConnectionsOfOneScopeResume)
{
    const TlsServer server(always("answer"), m_options);
    const ResumptionScope scope;
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(exchange(server), "answer");
    }
    EXPECT_EQ(handshakes(server), "frrr");
    EXPECT_EQ(server.accepted(), 4);
}

TEST_P(ResumingServerTest, TheEndOfTheScopeEndsTheSession)
{
    const TlsServer server(always("answer"), m_options);
    for (int i = 0; i < 2; ++i) {
        const ResumptionScope scope;
        exchange(server);
        exchange(server);
    }
    exchange(server);
    EXPECT_EQ(handshakes(server), "frfrf");
}

TEST_P(ResumingServerTest, AServerThatForgotShakesHandsInFull)
{
    TlsServer server(always("answer"), m_options);
    const ResumptionScope scope;
    exchange(server);
    exchange(server);
    server.forgetSessions();
    EXPECT_EQ(exchange(server), "answer");
    EXPECT_EQ(exchange(server), "answer");
    EXPECT_EQ(handshakes(server), "fror");
    EXPECT_EQ(server.accepted(), 4);
}

TEST_P(ResumingServerTest, AHandshakeThatFailsIsNotTriedWithTheSessionAgain)
{
    m_options.refusesOffers = true;
    const TlsServer server(always("answer"), m_options);
    const ResumptionScope scope;
    exchange(server);
    EXPECT_THROW(exchange(server), Poco::Exception);
    EXPECT_EQ(exchange(server), "answer");
    EXPECT_EQ(handshakes(server), "ff");
    EXPECT_EQ(server.accepted(), 3);
}

TEST_P(ResumingServerTest, ASessionIsForItsServerOnly)
{
    const TlsServer first(always("answer"), m_options);
    const TlsServer second(always("answer"), m_options);
    const ResumptionScope scope;
    exchange(first);
    exchange(second);
    exchange(first);
    EXPECT_EQ(handshakes(first), "ff");
    EXPECT_EQ(handshakes(second), "f");
}

INSTANTIATE_TEST_SUITE_P(PlatformSocketTest, ResumingServerTest, testing::Values(Sessions::Tickets, Sessions::Ids),
                         [](const auto& sessions) { return sessions.param == Sessions::Ids ? "Ids" : "Tickets"; });

TEST_F(ResumptionTest, AServerWithoutSessionsIsAskedAnewEachTime)
{
    TlsServer::Options options;
    options.sessions = Sessions::None;
    const TlsServer server(always("answer"), options);
    const ResumptionScope scope;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(exchange(server), "answer");
    }
    EXPECT_EQ(server.accepted(), 3);
    EXPECT_EQ(handshakes(server).find('r'), std::string::npos);
}

TEST_F(ResumptionTest, WithoutAScopeNothingIsKept)
{
    const TlsServer server(always("answer"));
    exchange(server);
    exchange(server);
    EXPECT_EQ(handshakes(server), "ff");
}

TEST_F(ResumptionTest, AResponseThatBreaksOffCostsTheNextConnectionNothing)
{
    const TlsServer server([](TlsConnection& connection, const std::string&) {
        connection.send("some");
        connection.reset();
    });
    const ResumptionScope scope;
    EXPECT_THROW(exchange(server), Poco::Exception);
    EXPECT_THROW(exchange(server), Poco::Exception);
    EXPECT_EQ(server.requests().size(), 2U);
}

/** What a new version of the library sets: it takes the session, unless there is no memory. */
bool g_memoryIsShort = false;

int takeSession(SSL* /*connection*/, SSL_SESSION* /*session*/)
{
    if (g_memoryIsShort) {
        throw std::bad_alloc();
    }
    return 1;
}

TEST(SessionCallbackTest, ASessionThereIsNoMemoryForIsForgotten)
{
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_client_method()), &SSL_CTX_free);
    SSL_CTX_sess_set_new_cb(context.get(), &takeSession);
    IPCService::MetaDataGW::forgetSessionsWithoutMemory(context.get());
    const auto callback = SSL_CTX_sess_get_new_cb(context.get());
    g_memoryIsShort = false;
    EXPECT_EQ(callback(nullptr, nullptr), 1);
    g_memoryIsShort = true;
    EXPECT_EQ(callback(nullptr, nullptr), 0);
}

TEST(SessionCallbackTest, AContextWithoutOneIsLeftAlone)
{
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_client_method()), &SSL_CTX_free);
    IPCService::MetaDataGW::forgetSessionsWithoutMemory(context.get());
    EXPECT_EQ(SSL_CTX_sess_get_new_cb(context.get()), nullptr);
}

}  // namespace
