#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_ResponseReader.h"

#include <Poco/Net/NetException.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>
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

/** The body of a response, or nothing when it is not taken. */
std::optional<std::string> bodyOf(Connection connection)
{
    HTTPResponse response;
    try {
        return readResponse([&](char* buffer, std::size_t size) { return connection.read(buffer, size); }, response);
    } catch (const Poco::Exception&) {
        return std::nullopt;
    } catch (const CutByAnybody&) {
        return std::nullopt;
    }
}

std::string textOf(const std::string& bytes)
{
    Connection connection(bytes);
    HTTPResponse response;
    try {
        readResponse([&](char* buffer, std::size_t size) { return connection.read(buffer, size); }, response);
    } catch (const Poco::Exception& exc) {
        return exc.displayText();
    }
    return "taken";
}

const char* const CHUNKED = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

struct Shape
{
    const char* response;
    const char* body;
};

class CutResponseTest : public testing::TestWithParam<Shape>
{
};

TEST_P(CutResponseTest, IsTakenOnlyWhole)
{
    const std::string whole = GetParam().response;
    for (const bool announced : {true, false}) {
        for (const std::size_t piece : {std::size_t{1}, std::size_t{2}, std::size_t{7}, whole.size()}) {
            for (std::size_t end = 0; end < whole.size(); ++end) {
                EXPECT_EQ(bodyOf(Connection(whole.substr(0, end), announced, piece)), std::nullopt)
                    << end << " bytes in pieces of " << piece;
            }
            EXPECT_EQ(bodyOf(Connection(whole, announced, piece)), GetParam().body) << "in pieces of " << piece;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    ResponseReader, CutResponseTest,
    testing::Values(
        Shape{"HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody", "body"},
        Shape{"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", ""}, Shape{"HTTP/1.1 204 No Content\r\n\r\n", ""},
        Shape{"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nbody\r\n0\r\n\r\n", "body"},
        Shape{"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2;a=b\r\nbo\r\n2\r\ndy\r\n0\r\nA: b\r\n c\r\n\r\n",
              "body"},
        Shape{"HTTP/1.1 102 Processing\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody", "body"}));

TEST(ResponseReader, BodyWithoutLengthEndsWhereItIsAnnounced)
{
    const std::string whole = "HTTP/1.1 200 OK\r\nA: b\r\n\r\nbody";
    for (std::size_t end = 0; end <= whole.size(); ++end) {
        const std::string bytes = whole.substr(0, end);
        EXPECT_EQ(bodyOf(Connection(bytes)), end < 25 ? std::nullopt : std::optional(bytes.substr(25))) << end;
        EXPECT_EQ(bodyOf(Connection(bytes, false)), std::nullopt) << end;
    }
}

TEST(ResponseReader, SaysWhyItTakesNoResponse)
{
    EXPECT_EQ(textOf(""), "No message received");
    EXPECT_EQ(textOf("HTTP/1.1 200 OK\r\n"), "Malformed message: response ends before its end");
    EXPECT_EQ(textOf("HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\n"), "Malformed message: invalid Content-Length");
    EXPECT_EQ(textOf("HTTP/1.1 99 No\r\n\r\n"), "Malformed message: invalid response head");
    EXPECT_EQ(textOf("HTTP/1.1 200 OK\r\n\rA: b\r\nContent-Length: 0\r\n\r\n"),
              "Malformed message: invalid response head");
    EXPECT_EQ(textOf("HTTP/1.1 200 OK\r\nContent-Length: 134217729\r\n\r\n"),
              "Malformed message: response is too large");
    EXPECT_EQ(textOf("HTTP/1.1 200 OK\r\nContent-Length: 18446744073709551615\r\n\r\n"),
              "Malformed message: response is too large");
    EXPECT_EQ(textOf(std::string(CHUNKED) + "ffffffffffffffff\r\n"), "Malformed message: response is too large");
    EXPECT_EQ(textOf(std::string(CHUNKED) + "4\r\nbody\r\n7fffffd\r\n"), "Malformed message: response is too large")
        << "with the chunk before it";
}

TEST(ResponseReader, LengthsThatAgreeAreOne)
{
    EXPECT_EQ(bodyOf(Connection("HTTP/1.1 200 OK\r\nContent-Length: 4\r\ncontent-length: 4\r\n\r\nbody")), "body");
    EXPECT_EQ(bodyOf(Connection("HTTP/1.1 200 OK\r\nContent-Length: 4\r\ncontent-length: 3\r\n\r\nbody")),
              std::nullopt);
}

TEST(ResponseReader, ChunksComeBeforeALength)
{
    EXPECT_EQ(bodyOf(Connection("HTTP/1.1 200 OK\r\nContent-Length: 2\r\nTransfer-Encoding: Chunked\r\n\r\n"
                                "4\r\nbody\r\n0\r\n\r\n")),
              "body");
}

TEST(ResponseReader, HeadOfTheLibrarysLimitsIsTakenAndALargerOneIsNot)
{
    std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n";
    for (int i = 0; i < 99; ++i) {
        head += "X: " + std::string(8192, 'x') + "\r\n";
    }
    EXPECT_EQ(bodyOf(Connection(head + "\r\nbody")), "body");
    EXPECT_EQ(bodyOf(Connection(head + "X: y\r\n\r\nbody")), std::nullopt) << "101 fields";
    EXPECT_EQ(
        bodyOf(Connection("HTTP/1.1 200 OK\r\nContent-Length: 4\r\nX: " + std::string(8193, 'x') + "\r\n\r\nbody")),
        std::nullopt);
}

TEST(ResponseReader, HundredInterimAnswersArePassedOverAndNotMore)
{
    std::string interim;
    for (int status = 100; status < 200; ++status) {
        // 101 changes the protocol, and is an answer.
        interim += "HTTP/1.1 " + std::to_string(status == 101 ? 100 : status) + " Wait\r\n\r\n";
    }
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody";
    EXPECT_EQ(bodyOf(Connection(interim + answer)), "body");
    EXPECT_EQ(textOf(interim + "HTTP/1.1 100 Continue\r\n\r\n" + answer),
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
                                         std::pair(std::string(CHUNKED) + "5;", "x"),
                                         std::pair(std::string(CHUNKED) + "0\r\n", "x"),
                                         std::pair(std::string(CHUNKED) + "0\r\n", "X: y\r\n"),
                                         std::pair(std::string(CHUNKED) + "4e20\r\n" + std::string(20000, 'x'), "x")));

TEST(ResponseReader, BytesOfABodyAllowForTheirChunks)
{
    std::string body;
    for (std::size_t i = 0; i < MEGABYTE; ++i) {
        body += "0001\r\nx\r\n";  // 8 bytes for one
    }
    EXPECT_EQ(bodyOf(Connection(CHUNKED + body + "0\r\n\r\n")), std::string(MEGABYTE, 'x'));
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

class OtherCodingTest : public testing::TestWithParam<const char*>
{
};

TEST_P(OtherCodingTest, IsNoPage)
{
    const std::string head = std::string("HTTP/1.1 200 OK\r\n") + GetParam() + "\r\n\r\n";
    EXPECT_EQ(bodyOf(Connection(head + "4\r\nbody\r\n0\r\n\r\n")), std::nullopt);
    EXPECT_EQ(bodyOf(Connection(head + "14\r\nthe first hal")), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(ResponseReader, OtherCodingTest,
                         testing::Values("Transfer-Encoding: gzip, chunked", "Transfer-Encoding: chunked, chunked",
                                         "Transfer-Encoding: identity\r\nTransfer-Encoding: chunked",
                                         "Transfer-Encoding: gzip", "Transfer-Encoding: chunked;q=1",
                                         "Transfer-Encoding: gzip, chunked\r\nContent-Length: 6",
                                         "Transfer-Encoding: \"chunked\"", "Transfer-Encoding : chunked"));

TEST(ResponseReader, ChunkedIsReadInAnyCaseAndFolded)
{
    for (const std::string field : {"transfer-encoding: Chunked", "Transfer-Encoding:\r\n chunked"}) {
        EXPECT_EQ(bodyOf(Connection("HTTP/1.1 200 OK\r\n" + field + "\r\n\r\n4\r\nbody\r\n0\r\n\r\n")), "body")
            << field;
    }
}

class OddFieldTest : public testing::TestWithParam<const char*>
{
};

TEST_P(OddFieldTest, IsNoResponse)
{
    EXPECT_EQ(bodyOf(Connection(std::string("HTTP/1.1 200 OK\r\n") + GetParam() + "\r\n\r\nthe first half")),
              std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(ResponseReader, OddFieldTest,
                         testing::Values("Content-Length : 50", "Content-Length\t: 50", "Content-Length 50", ": 50"));

TEST(ResponseReader, FoldedLengthIsALength)
{
    EXPECT_EQ(bodyOf(Connection("HTTP/1.1 200 OK\r\nContent-Length:\r\n 4\r\n\r\nbody and more")), "body");
}

TEST(ResponseReader, OtherProtocolIsNoAnswer)
{
    for (const std::string line : {"FTP 200", "ICY 200 OK", "HTTPS/1.1 200 OK"}) {
        EXPECT_EQ(bodyOf(Connection(line + "\r\nContent-Length: 2\r\n\r\nhi")), std::nullopt) << line;
    }
}

}  // namespace
