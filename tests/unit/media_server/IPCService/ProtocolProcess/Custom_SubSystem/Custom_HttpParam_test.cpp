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

/** The lines that every request begins with. */
std::vector<LogLine> parameterLines(std::uint16_t port)
{
    return {info("------------------------------"),
            info("Http Param:"),
            info("Http Server IP: %s", "Http Server IP: 127.0.0.1"),
            info("Http Server Port: %d", "Http Server Port: " + std::to_string(port)),
            info("Http Method:%s ", "Http Method:POST "),
            info("Http URI:%s ", "Http URI:/page "),
            info("------------------------------")};
}

TEST_F(CustomHttpParamTest, DefaultContentTypeCarriesTheAcceptHeader)
{
    EXPECT_EQ(Custom_HttpParam::DEFAULT_CONTENT_TYPE,
              "application/json;charset=UTF-8\r\nAccept: application/json;charset=UTF-8");
}

TEST_F(CustomHttpParamTest, SendsBodiesOfAnyLengthByteForByte)
{
    const TlsServer server(always(httpAnswer("answer")));
    for (const std::size_t size : {0U, 2U, 3000000U}) {
        const std::string body(size, 'b');
        EXPECT_EQ(post(server.port(), body), 200);
        EXPECT_EQ(m_response, "answer");
        EXPECT_TRUE(server.requests().back() ==
                    "POST /page HTTP/1.1\r\n"
                    "Connection: Keep-Alive\r\n"
                    "Content-Type: application/json;charset=UTF-8\r\n"
                    "Accept: application/json;charset=UTF-8\r\n"
                    "Content-Length: " +
                        std::to_string(size) + "\r\nHost: 127.0.0.1:" + std::to_string(server.port()) + "\r\n\r\n" +
                        body)
            << server.requests().back().substr(0, 300);
    }
    EXPECT_EQ(server.accepted(), 3);
}

TEST_F(CustomHttpParamTest, EmptyAnswerReplacesAnEarlierOne)
{
    m_response = "of an earlier request";
    const TlsServer server(always(httpAnswer("")));
    EXPECT_EQ(post(server.port()), 200);
    EXPECT_EQ(m_response, "");
}

TEST_F(CustomHttpParamTest, LogsItsParametersAndTheStatus)
{
    const TlsServer server(always(httpAnswer("why", "HTTP/1.1 409 Conflict")));
    EXPECT_EQ(post(server.port()), 409);
    EXPECT_EQ(m_response, "why");
    std::vector<LogLine> expected = parameterLines(server.port());
    expected.push_back(info("Http Status $%d", "Http Status $409"));
    EXPECT_EQ(loggedBy("Custom_HttpParam"), expected);
}

TEST_F(CustomHttpParamTest, FailedRequestIsLoggedAndNotRepeated)
{
    const TlsServer server([](TlsConnection& connection, const std::string&) { connection.reset(); });
    EXPECT_EQ(post(server.port()), 400);
    EXPECT_EQ(server.accepted(), 1);
    std::vector<LogLine> expected = parameterLines(server.port());
    const std::string reason = firstLogged("Custom_HttpParam", "SendMsgAndRecvResponse err:%s");
    EXPECT_GT(reason.size(), std::string("SendMsgAndRecvResponse err:").size());
    expected.push_back(error("SendMsgAndRecvResponse err:%s", reason));
    EXPECT_EQ(loggedBy("Custom_HttpParam"), expected);
}

}  // namespace
