#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_HttpParam.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "http_request_fixture.h"

using IPCService::MetaDataGW::Custom_HttpParam;

namespace {

class CustomHttpParamTest : public HttpRequestTest
{
};

/** The request that must be on the wire. */
std::string requestBytes(std::uint16_t port, const std::string& uri, const std::string& body)
{
    return "POST " + uri +
           " HTTP/1.1\r\n"
           "Connection: Keep-Alive\r\n"
           "Content-Type: application/json;charset=UTF-8\r\n"
           "Accept: application/json;charset=UTF-8\r\n"
           "Content-Length: " +
           std::to_string(body.size()) + "\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\n\r\n" + body;
}

TEST_F(CustomHttpParamTest, DefaultContentTypeCarriesTheAcceptHeader)
{
    EXPECT_EQ(Custom_HttpParam::DEFAULT_CONTENT_TYPE,
              "application/json;charset=UTF-8\r\nAccept: application/json;charset=UTF-8");
}

TEST_F(CustomHttpParamTest, PutsTheRequestOnTheWireByteForByte)
{
    const TlsServer server(always(httpAnswer("answer")));
    EXPECT_EQ(post(server.port(), "{\n \"cameraCode\" : \"C1\"\n}", "/faces/page"), 200);
    EXPECT_EQ(m_response, "answer");
    EXPECT_EQ(server.requests(),
              std::vector<std::string>{requestBytes(server.port(), "/faces/page", "{\n \"cameraCode\" : \"C1\"\n}")});
}

TEST_F(CustomHttpParamTest, ContentLengthCountsBytesNotCharacters)
{
    const TlsServer server(always(httpAnswer("")));
    const std::string body = "\"\xC3\xA4\xE7\x9B\xB8\"";
    ASSERT_EQ(body.size(), 7U);
    post(server.port(), body);
    EXPECT_EQ(server.requests(), std::vector<std::string>{requestBytes(server.port(), "/page", body)});
}

TEST_F(CustomHttpParamTest, SendsAnEmptyBody)
{
    const TlsServer server(always(httpAnswer("")));
    EXPECT_EQ(post(server.port(), ""), 200);
    EXPECT_EQ(server.requests(), std::vector<std::string>{requestBytes(server.port(), "/page", "")});
}

TEST_F(CustomHttpParamTest, SendsALongBodyWhole)
{
    const TlsServer server(always(httpAnswer("")));
    const std::string body(3000000, 'b');
    EXPECT_EQ(post(server.port(), body), 200);
    ASSERT_EQ(server.requests().size(), 1U);
    EXPECT_TRUE(server.requests()[0] == requestBytes(server.port(), "/page", body));
}

TEST_F(CustomHttpParamTest, RequestLineHasAPathEvenWithoutOneInTheUrl)
{
    const TlsServer server(always(httpAnswer("")));
    EXPECT_EQ(post(server.port(), "{}", ""), 200);
    EXPECT_EQ(server.requests(), std::vector<std::string>{requestBytes(server.port(), "/", "{}")});
}

TEST_F(CustomHttpParamTest, LogsItsParametersAndTheStatus)
{
    const TlsServer server(always(httpAnswer("")));
    const std::string port = std::to_string(server.port());
    post(server.port());
    EXPECT_EQ(
        loggedBy("Custom_HttpParam"),
        (std::vector<LogLine>{info("------------------------------"), info("Http Param:"),
                              info("Http Server IP: %s", "Http Server IP: 127.0.0.1"),
                              info("Http Server Port: %d", "Http Server Port: " + port),
                              info("Http Method:%s ", "Http Method:POST "), info("Http URI:%s ", "Http URI:/page "),
                              info("------------------------------"), info("Http Status $%d", "Http Status $200")}));
}

TEST_F(CustomHttpParamTest, LogsItsParametersBeforeItConnects)
{
    post(unusedPort());
    const std::vector<LogLine> lines = loggedBy("Custom_HttpParam");
    ASSERT_EQ(lines.size(), 8U);
    EXPECT_EQ(lines[6].text, "------------------------------");
    EXPECT_EQ(lines[7].format, "SendMsgAndRecvResponse err:%s");
}

class StatusTest : public HttpRequestTest, public testing::WithParamInterface<int>
{
};

TEST_P(StatusTest, IsReturnedAsItCameWithItsBody)
{
    const std::string status = std::to_string(GetParam());
    const TlsServer server(always(httpAnswer("why it is " + status, "HTTP/1.1 " + status + " Reason")));
    EXPECT_EQ(post(server.port()), GetParam());
    EXPECT_EQ(m_response, "why it is " + status);
    EXPECT_EQ(firstLogged("Custom_HttpParam", "Http Status $%d"), "Http Status $" + status);
    EXPECT_EQ(countLogged("Custom_HttpParam", "SendMsgAndRecvResponse err:%s"), 0);
}

INSTANTIATE_TEST_SUITE_P(CustomHttpParam, StatusTest, testing::Values(200, 201, 302, 400, 401, 404, 409, 500, 503));

TEST_F(CustomHttpParamTest, EmptyBodyYieldsAnEmptyResponse)
{
    m_response = "of an earlier request";
    const TlsServer server(always(httpAnswer("")));
    EXPECT_EQ(post(server.port()), 200);
    EXPECT_EQ(m_response, "");
}

TEST_F(CustomHttpParamTest, AnswerWithoutABodyYieldsItsStatus)
{
    const TlsServer server(always("HTTP/1.1 204 No Content\r\n\r\n"));
    EXPECT_EQ(post(server.port()), 204);
    EXPECT_EQ(m_response, "");
}

TEST_F(CustomHttpParamTest, BodyWithoutALengthEndsWithTheConnection)
{
    const TlsServer server(always("HTTP/1.1 200 OK\r\n\r\nall there is"));
    EXPECT_EQ(post(server.port()), 200);
    EXPECT_EQ(m_response, "all there is");
}

TEST_F(CustomHttpParamTest, ChunkedBodyIsPutTogether)
{
    const TlsServer server(
        always("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nfirst\r\nA\r\n and other\r\n0\r\n\r\n"));
    EXPECT_EQ(post(server.port()), 200);
    EXPECT_EQ(m_response, "first and other");
}

TEST_F(CustomHttpParamTest, BodyOf10MegabytesComesWhole)
{
    std::string body(10U << 20, '\0');
    for (std::size_t i = 0; i < body.size(); ++i) {
        body[i] = static_cast<char>(i % 251);
    }
    const TlsServer server(always(httpAnswer(body)));
    EXPECT_EQ(post(server.port()), 200);
    EXPECT_TRUE(m_response == body);
}

TEST_F(CustomHttpParamTest, BodyIsNotReadBeyondItsLength)
{
    const TlsServer server(always("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbodyand more"));
    EXPECT_EQ(post(server.port()), 200);
    EXPECT_EQ(m_response, "body");
}

TEST_F(CustomHttpParamTest, EachRequestHasAConnectionOfItsOwn)
{
    const TlsServer server(always(httpAnswer("")));
    EXPECT_EQ(post(server.port()), 200);
    EXPECT_EQ(post(server.port()), 200);
    EXPECT_EQ(server.accepted(), 2);
    EXPECT_EQ(server.requests().size(), 2U);
}

TEST_F(CustomHttpParamTest, FailedRequestIsNotRepeated)
{
    const TlsServer server([](TlsConnection& connection, const std::string&) { connection.reset(); });
    EXPECT_EQ(post(server.port()), 400);
    EXPECT_EQ(server.accepted(), 1);
}

}  // namespace
