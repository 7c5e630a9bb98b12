#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_ResponseReader.h"

#include <Poco/Net/NetException.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

using IPCService::MetaDataGW::ByteSource;
using IPCService::MetaDataGW::readResponse;
using Poco::Net::HTTPResponse;

namespace {

constexpr std::size_t MEGABYTE = 1U << 20;

struct CutByAnybody
{
};

/** Gives a text in pieces of at most so many bytes, and then ends: announced, or by an exception as a connection. */
class Connection
{
public:
    explicit Connection(std::string bytes, bool announced = true, std::size_t piece = 100000)
        : m_bytes(std::move(bytes)), m_announced(announced), m_piece(piece)
    {
    }

    std::size_t read(char* buffer, std::size_t size)
    {
        if (m_used == m_bytes.size() && !m_announced) {
            throw CutByAnybody();
        }
        const std::size_t count = std::min({size, m_piece, m_bytes.size() - m_used});
        std::memcpy(buffer, m_bytes.data() + m_used, count);
        m_used += count;
        return count;
    }

private:
    std::string m_bytes;
    bool m_announced;
    std::size_t m_piece;
    std::size_t m_used = 0;
};

/** The body of a response in quotes, or why it is not taken. */
std::string outcomeOf(Connection connection)
{
    HTTPResponse response;
    try {
        return '"' +
               readResponse([&](char* buffer, std::size_t size) { return connection.read(buffer, size); }, response) +
               '"';
    } catch (const Poco::Exception& exc) {
        return exc.displayText();
    } catch (const CutByAnybody&) {
        return "cut";
    }
}

bool isTaken(const Connection& connection)
{
    return outcomeOf(connection)[0] == '"';
}

const std::string STATUS_OK = "HTTP/1.1 200 OK\r\n";
const std::string CHUNKED = STATUS_OK + "Transfer-Encoding: chunked\r\n\r\n";

/** What comes of a response: its body in quotes, or why it is not taken. */
struct Outcome
{
    std::string response;
    std::string outcome;
};

class CutResponseTest : public testing::TestWithParam<Outcome>
{
};

TEST_P(CutResponseTest, IsTakenOnlyWhole)
{
    const std::string whole = GetParam().response;
    for (const bool announced : {true, false}) {
        for (const std::size_t piece : {std::size_t{1}, std::size_t{2}, std::size_t{7}, whole.size()}) {
            for (std::size_t end = 0; end < whole.size(); ++end) {
                EXPECT_FALSE(isTaken(Connection(whole.substr(0, end), announced, piece)))
                    << end << " bytes in pieces of " << piece;
            }
            EXPECT_EQ(outcomeOf(Connection(whole, announced, piece)), GetParam().outcome) << "in pieces of " << piece;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    ResponseReader, CutResponseTest,
    testing::Values(Outcome{STATUS_OK + "Content-Length: 4\r\n\r\nbody", "\"body\""},
                    Outcome{STATUS_OK + "Content-Length: 0\r\n\r\n", "\"\""},
                    Outcome{"HTTP/1.1 204 No Content\r\n\r\n", "\"\""},
                    Outcome{CHUNKED + "4\r\nbody\r\n0\r\n\r\n", "\"body\""},
                    Outcome{CHUNKED + "2;a=b\r\nbo\r\n2\r\ndy\r\n0\r\nA: b\r\n c\r\n\r\n", "\"body\""},
                    Outcome{"HTTP/1.1 102 Processing\r\n\r\n" + STATUS_OK + "Content-Length: 4\r\n\r\nbody",
                            "\"body\""}));

TEST(ResponseReader, BodyWithoutLengthEndsWhereItIsAnnounced)
{
    const std::string whole = "HTTP/1.1 200 OK\r\nA: b\r\n\r\nbody";
    for (std::size_t end = 0; end <= whole.size(); ++end) {
        const std::string bytes = whole.substr(0, end);
        if (end < 25) {
            EXPECT_FALSE(isTaken(Connection(bytes))) << end;
        } else {
            EXPECT_EQ(outcomeOf(Connection(bytes)), '"' + bytes.substr(25) + '"') << end;
        }
        EXPECT_FALSE(isTaken(Connection(bytes, false))) << end;
    }
}

TEST(ResponseReader, HeadOfTheLibrarysLimitsIsTakenAndALargerOneIsNot)
{
    std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n";
    for (int i = 0; i < 99; ++i) {
        head += "X: " + std::string(8192, 'x') + "\r\n";
    }
    EXPECT_EQ(outcomeOf(Connection(head + "\r\nbody")), "\"body\"");
    EXPECT_FALSE(isTaken(Connection(head + "X: y\r\n\r\nbody"))) << "101 fields";
    EXPECT_FALSE(isTaken(Connection(STATUS_OK + "Content-Length: 4\r\nX: " + std::string(8193, 'x') + "\r\n\r\nbody")));
}

TEST(ResponseReader, LongerProtocolNameIsNoAnswer)
{
    EXPECT_FALSE(isTaken(Connection("HTTPS/1.1 200 OK\r\nContent-Length: 2\r\n\r\nhi")));
}

TEST(ResponseReader, HundredInterimAnswersArePassedOverAndNotMore)
{
    std::string interim;
    for (int status = 100; status < 200; ++status) {
        // 101 changes the protocol, and is an answer.
        interim += "HTTP/1.1 " + std::to_string(status == 101 ? 100 : status) + " Wait\r\n\r\n";
    }
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody";
    EXPECT_EQ(outcomeOf(Connection(interim + answer)), "\"body\"");
    EXPECT_EQ(outcomeOf(Connection(interim + "HTTP/1.1 100 Continue\r\n\r\n" + answer)),
              "Malformed message: too many interim answers");
}

/** A source without an end; counts what is taken of it. */
std::size_t takenOf(const std::string& begin, const std::string& endless, std::string& failure)
{
    std::size_t given = 0;
    const ByteSource source = [&](char* buffer, std::size_t size) {
        if (given >= begin.size() && endless.size() == 1) {
            std::memset(buffer, endless[0], size);
            given += size;
            return size;
        }
        for (std::size_t i = 0; i < size; ++i, ++given) {
            buffer[i] = given < begin.size() ? begin[given] : endless[(given - begin.size()) % endless.size()];
        }
        return size;
    };
    HTTPResponse response;
    try {
        readResponse(source, response);
    } catch (const Poco::Net::MessageException& exc) {
        failure = exc.message();
    }
    return given;
}

class EndlessOverheadTest : public testing::TestWithParam<std::pair<std::string, std::string>>
{
};

TEST_P(EndlessOverheadTest, EndsAtOneMegabyte)
{
    std::string failure;
    EXPECT_LE(takenOf(GetParam().first, GetParam().second, failure), MEGABYTE + 50000);
    EXPECT_EQ(failure, "response has too much beside its body");
}

INSTANTIATE_TEST_SUITE_P(ResponseReader, EndlessOverheadTest,
                         testing::Values(std::pair("", " "), std::pair("", "\r\n"), std::pair("", "x"),
                                         std::pair("HTTP/1.1 200 OK\r\n", "x"),
                                         std::pair("HTTP/1.1 200 OK\r\n", "X: y\r\n"),
                                         std::pair("HTTP/1.1 100 Continue\r\n\r\n", "X: y\r\n"),
                                         std::pair(CHUNKED, " "), std::pair(CHUNKED, "0"),
                                         std::pair(CHUNKED + "5;", "x"), std::pair(CHUNKED + "0\r\n", "x"),
                                         std::pair(CHUNKED + "0\r\n", "X: y\r\n"),
                                         std::pair(CHUNKED + "4e20\r\n" + std::string(20000, 'x'), "x")));

TEST(ResponseReader, OneMegabyteBesideTheBodyIsTakenAndOneByteMoreIsNot)
{
    const std::string most = CHUNKED + "0;" + std::string(MEGABYTE - CHUNKED.size() - 6, 'x');
    EXPECT_EQ(outcomeOf(Connection(most + "\r\n\r\n")), "\"\"");
    EXPECT_FALSE(isTaken(Connection(most + "x\r\n\r\n")));
}

TEST(ResponseReader, BytesOfABodyAllowForTheirChunks)
{
    std::string body;
    for (std::size_t i = 0; i < MEGABYTE; ++i) {
        body += "0001\r\nx\r\n";  // 8 bytes for one
    }
    EXPECT_TRUE(outcomeOf(Connection(CHUNKED + body + "0\r\n\r\n")) == '"' + std::string(MEGABYTE, 'x') + '"');
    std::string longer;
    for (std::size_t i = 0; i < MEGABYTE; ++i) {
        longer += "00001\r\nx\r\n";
    }
    EXPECT_FALSE(isTaken(Connection(CHUNKED + longer + "0\r\n\r\n")));
    std::string failure;
    EXPECT_LE(takenOf(CHUNKED, "1;" + std::string(100, 'x') + "\r\nx\r\n", failure), 2 * MEGABYTE);
    EXPECT_EQ(failure, "response has too much beside its body");
}

TEST(ResponseReader, BodyOf128MegabytesIsTakenAndOfOneByteMoreIsNot)
{
    for (const std::size_t size : {128 * MEGABYTE, 128 * MEGABYTE + 1}) {
        std::size_t left = size;
        std::string head = "HTTP/1.1 200 OK\r\n\r\n";
        const ByteSource source = [&](char* buffer, std::size_t room) {
            if (!head.empty()) {
                const std::size_t count = head.copy(buffer, room);
                head.clear();
                return count;
            }
            const std::size_t count = std::min(left, room);
            std::memset(buffer, 'x', count);
            left -= count;
            return count;
        };
        HTTPResponse response;
        if (size == 128 * MEGABYTE) {
            EXPECT_EQ(readResponse(source, response).size(), size);
        } else {
            EXPECT_THROW(readResponse(source, response), Poco::Net::MessageException);
        }
    }
}

TEST(ResponseReader, EndlessBodyEndsAfter128Megabytes)
{
    for (const std::string& begin : {std::string("HTTP/1.1 200 OK\r\n\r\n"), CHUNKED + std::string("8000000\r\n"),
                                     CHUNKED + std::string("7ffffff\r\n")}) {
        std::string failure;
        EXPECT_LE(takenOf(begin, "x", failure), 129 * MEGABYTE + 20000);
        EXPECT_NE(failure, "");
    }
}

const std::string NO_MESSAGE = "No message received";
const std::string MALFORMED = "Malformed message: ";
const std::string NO_END = MALFORMED + "response ends before its end";
const std::string NO_HEAD = MALFORMED + "invalid response head";
const std::string NO_FIELD = MALFORMED + "invalid header field";
const std::string NO_LENGTH = MALFORMED + "invalid Content-Length";
const std::string NO_CODING = MALFORMED + "unknown Transfer-Encoding";
const std::string TOO_LARGE = MALFORMED + "response is too large";
const std::string ANY_BODY = "4\r\nbody\r\n0\r\n\r\n";

class OutcomeTest : public testing::TestWithParam<Outcome>
{
};

TEST_P(OutcomeTest, IsTheBodyOrTheReason)
{
    EXPECT_EQ(outcomeOf(Connection(GetParam().response)), GetParam().outcome);
}

INSTANTIATE_TEST_SUITE_P(Head, OutcomeTest,
                         testing::Values(Outcome{"", NO_MESSAGE}, Outcome{STATUS_OK, NO_END},
                                         Outcome{"\nHTTP/1.1 200 OK\nContent-Length: 4\n\nbody", "\"body\""},
                                         Outcome{"HTTP/1.1 99 No\r\n\r\n", NO_HEAD},
                                         Outcome{STATUS_OK + "\rA: b\r\nContent-Length: 0\r\n\r\n", NO_HEAD},
                                         Outcome{"FTP 200\r\nContent-Length: 2\r\n\r\nhi", NO_HEAD},
                                         Outcome{"ICY 200 OK\r\nContent-Length: 2\r\n\r\nhi", NO_HEAD},
                                         Outcome{STATUS_OK + "Content-Length : 50\r\n\r\nhalf", NO_FIELD},
                                         Outcome{STATUS_OK + "Content-Length\t: 50\r\n\r\nhalf", NO_FIELD},
                                         Outcome{STATUS_OK + "Content-Length 50\r\n\r\nhalf", NO_FIELD},
                                         Outcome{STATUS_OK + ": 50\r\n\r\nhalf", NO_FIELD}));

INSTANTIATE_TEST_SUITE_P(
    Length, OutcomeTest,
    testing::Values(Outcome{STATUS_OK + "Content-Length:\r\n 4\r\n\r\nbody and more", "\"body\""},
                    Outcome{STATUS_OK + "Content-Length:\r\n\t4\r\n\r\nbody and more", "\"body\""},
                    Outcome{STATUS_OK + "Content-Length: 4x\r\n\r\nbody", NO_LENGTH},
                    Outcome{STATUS_OK + "Content-Length: 4\r\ncontent-length: 4\r\n\r\nbody", "\"body\""},
                    Outcome{STATUS_OK + "Content-Length: 4\r\ncontent-length: 3\r\n\r\nbody", NO_LENGTH},
                    Outcome{STATUS_OK + "Content-Length: -5\r\n\r\n", NO_LENGTH},
                    Outcome{STATUS_OK + "Content-Length: 134217729\r\n\r\n", TOO_LARGE},
                    Outcome{STATUS_OK + "Content-Length: 18446744073709551615\r\n\r\n", TOO_LARGE},
                    Outcome{CHUNKED + "ffffffffffffffff\r\n", TOO_LARGE},
                    Outcome{CHUNKED + "4\r\nbody\r\n7fffffd\r\n", TOO_LARGE},  // with the chunk before it
                    Outcome{CHUNKED + "4\r\nbody\r\nno size\r\n", NO_END}));

INSTANTIATE_TEST_SUITE_P(
    Coding, OutcomeTest,
    testing::Values(
        Outcome{STATUS_OK + "transfer-encoding: Chunked\r\n\r\n" + ANY_BODY, "\"body\""},
        Outcome{STATUS_OK + "Transfer-Encoding:\r\n chunked\r\n\r\n" + ANY_BODY, "\"body\""},
        Outcome{STATUS_OK + "Content-Length: 2\r\nTransfer-Encoding: Chunked\r\n\r\n" + ANY_BODY, "\"body\""},
        Outcome{STATUS_OK + "Transfer-Encoding: gzip, chunked\r\n\r\n" + ANY_BODY, NO_CODING},
        Outcome{STATUS_OK + "Transfer-Encoding: chunked, chunked\r\n\r\n" + ANY_BODY, NO_CODING},
        Outcome{STATUS_OK + "Transfer-Encoding: identity\r\nTransfer-Encoding: chunked\r\n\r\n" + ANY_BODY, NO_CODING},
        Outcome{STATUS_OK + "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n\r\n" + ANY_BODY, NO_CODING},
        Outcome{STATUS_OK + "Transfer-Encoding: gzip\r\n\r\n" + ANY_BODY, NO_CODING},
        Outcome{STATUS_OK + "Transfer-Encoding: chunked;q=1\r\n\r\n" + ANY_BODY, NO_CODING},
        Outcome{STATUS_OK + "Transfer-Encoding: gzip, chunked\r\nContent-Length: 6\r\n\r\n" + ANY_BODY, NO_CODING},
        Outcome{STATUS_OK + "Transfer-Encoding: \"chunked\"\r\n\r\n" + ANY_BODY, NO_CODING},
        Outcome{STATUS_OK + "Transfer-Encoding : chunked\r\n\r\n" + ANY_BODY, NO_FIELD}));

// Whether a response of that status has the body that it announces, which does not come here.
INSTANTIATE_TEST_SUITE_P(Status, OutcomeTest,
                         testing::Values(Outcome{"HTTP/1.1 101 A\r\nContent-Length: 9\r\n\r\n", "\"\""},
                                         Outcome{"HTTP/1.1 204 A\r\nContent-Length: 9\r\n\r\n", "\"\""},
                                         Outcome{"HTTP/1.1 304 A\r\nContent-Length: 9\r\n\r\n", "\"\""},
                                         Outcome{"HTTP/1.1 200 A\r\nContent-Length: 9\r\n\r\n", NO_END},
                                         Outcome{"HTTP/1.1 203 A\r\nContent-Length: 9\r\n\r\n", NO_END},
                                         Outcome{"HTTP/1.1 205 A\r\nContent-Length: 9\r\n\r\n", NO_END},
                                         Outcome{"HTTP/1.1 303 A\r\nContent-Length: 9\r\n\r\n", NO_END},
                                         Outcome{"HTTP/1.1 305 A\r\nContent-Length: 9\r\n\r\n", NO_END}));

}  // namespace
