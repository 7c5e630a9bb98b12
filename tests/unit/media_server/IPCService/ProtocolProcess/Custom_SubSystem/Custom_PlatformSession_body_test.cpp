#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "http_request_fixture.h"
#include "support/system_calls.h"

namespace {

/** What of a response is its body, and when it is whole. */
class ResponseBodyTest : public HttpRequestTest
{
};

class TrailerTest : public ResponseBodyTest, public testing::WithParamInterface<const char*>
{
};

TEST_P(TrailerTest, BehindTheLastChunkIsNoPartOfTheBody)
{
    const TlsServer server(always(
        std::string("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nwhole\r\n0\r\n") + GetParam() + "\r\n"));
    EXPECT_EQ(post(server.port()), 200);
    EXPECT_EQ(m_response, "whole");
}

INSTANTIATE_TEST_SUITE_P(ResponseBodyTest, TrailerTest,
                         testing::Values("", "One: 1\r\n", "One: 1\r\nTwo: 2\r\n", "One: 1\r\nTwo: 2\r\nThree: 3\r\n"));

class TrailersInPiecesTest : public ResponseBodyTest, public testing::WithParamInterface<std::vector<const char*>>
{
};

TEST_P(TrailersInPiecesTest, BelongToAWholeBody)
{
    const TlsServer server([](TlsConnection& connection, const std::string&) {
        connection.send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nwhole\r\n");
        for (const char* piece : GetParam()) {
            if (connection.clientLeavesWithin(std::chrono::milliseconds(20)) || !connection.send(piece)) {
                return;
            }
        }
    });
    EXPECT_EQ(post(server.port()), 200);
    EXPECT_EQ(m_response, "whole");
}

INSTANTIATE_TEST_SUITE_P(ResponseBodyTest, TrailersInPiecesTest,
                         testing::Values(std::vector<const char*>{"0\r\n", "One: 1\r\n", "Two: 2\r\n", "\r\n"},
                                         std::vector<const char*>{"0\r\nOne: 1\r\nTw", "o: 2\r\n\r\n"},
                                         std::vector<const char*>{"0\r\nOne: 1\r\n\r", "\n"}));

class GarbageForAChunkSizeTest : public ResponseBodyTest, public testing::WithParamInterface<std::vector<std::string>>
{
};

TEST_P(GarbageForAChunkSizeTest, IsNoEndOfABody)
{
    const TlsServer server([](TlsConnection& connection, const std::string&) {
        connection.send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nwhole\r\n");
        for (const std::string& piece : GetParam()) {
            connection.send(piece);
            connection.clientLeavesWithin(std::chrono::milliseconds(20));
        }
        connection.clientLeavesWithin(std::chrono::seconds(1));
    });
    expectFailure(post(server.port()), "Malformed message: response ends before its end");
}

INSTANTIATE_TEST_SUITE_P(ResponseBodyTest, GarbageForAChunkSizeTest,
                         testing::Values(std::vector<std::string>{"size\r\n"}, std::vector<std::string>{"no", "\r\n"},
                                         std::vector<std::string>{"n" + std::string(8192, 'x')}));

class StatusWithoutBodyTest : public ResponseBodyTest, public testing::WithParamInterface<int>
{
};

TEST_P(StatusWithoutBodyTest, NeedsNotTheBodyThatItAnnounces)
{
    const std::string status = std::to_string(GetParam());
    const TlsServer server(always("HTTP/1.1 " + status + " Reason\r\nContent-Length: 10\r\n\r\n"));
    EXPECT_EQ(post(server.port()), GetParam());
    EXPECT_EQ(m_response, "");
    EXPECT_EQ(countLogged("Custom_HttpParam", "SendMsgAndRecvResponse err:%s"), 0);
}

INSTANTIATE_TEST_SUITE_P(ResponseBodyTest, StatusWithoutBodyTest, testing::Values(101, 204, 304));

class StatusWithBodyTest : public ResponseBodyTest, public testing::WithParamInterface<int>
{
};

TEST_P(StatusWithBodyTest, FailsWithoutTheBodyThatItAnnounces)
{
    const std::string status = std::to_string(GetParam());
    const TlsServer server(always("HTTP/1.1 " + status + " Reason\r\nContent-Length: 10\r\n\r\n"));
    expectFailure(post(server.port()), "");
}

INSTANTIATE_TEST_SUITE_P(ResponseBodyTest, StatusWithBodyTest, testing::Values(200, 201, 203, 205, 303, 305));

class HangUpTest : public ResponseBodyTest, public testing::WithParamInterface<bool>
{
protected:
    HangUpTest() { systemCalls().tlsEndWithoutNoticeFails = GetParam(); }
};

TEST_P(HangUpTest, WithoutNoticeMayHaveCutABodyOfUnknownLength)
{
    const TlsServer server([](TlsConnection& connection, const std::string&) {
        connection.send("HTTP/1.1 200 OK\r\n\r\nall there is");
        connection.hangUp();
    });
    expectFailure(post(server.port()), "SSL");
}

TEST_P(HangUpTest, WithoutNoticeDoesNoHarmBehindAnAnnouncedLength)
{
    const TlsServer server([](TlsConnection& connection, const std::string&) {
        connection.send("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nwhole");
        connection.hangUp();
    });
    EXPECT_EQ(post(server.port()), 200);
    EXPECT_EQ(m_response, "whole");
}

TEST_P(HangUpTest, WithoutNoticeInTheHeadIsAFailure)
{
    const TlsServer server([](TlsConnection& connection, const std::string&) {
        connection.send("HTTP/1.1 200 OK\r\n");
        connection.hangUp();
    });
    expectFailure(post(server.port()), "SSL");
}

TEST_P(HangUpTest, WithoutNoticeAndWithoutTheLastChunkIsAFailure)
{
    const TlsServer server([](TlsConnection& connection, const std::string&) {
        connection.send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nfirst\r\n");
        connection.hangUp();
    });
    expectFailure(post(server.port()), "");
}

INSTANTIATE_TEST_SUITE_P(ResponseBodyTest, HangUpTest, testing::ValuesIn(endsWithoutNotice()));

}  // namespace
