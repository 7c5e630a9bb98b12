#include "response_oracle.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Verdict = ResponseReading::Verdict;

const char* const LENGTH = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody";
const char* const CHUNKED = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

Verdict verdictOf(const std::string& bytes, bool announced = true)
{
    return readResponseAtOnce(bytes, announced).verdict;
}

TEST(ResponseOracle, CutResponsesAreBroken)
{
    for (const std::string& whole : {std::string(LENGTH), CHUNKED + std::string("4;a=b\r\nbody\r\n0\r\nA: b\r\n\r\n"),
                                     "HTTP/1.1 100 Continue\r\n\r\n" + std::string(LENGTH)}) {
        for (std::size_t end = 0; end < whole.size(); ++end) {
            EXPECT_EQ(verdictOf(whole.substr(0, end)), Verdict::Broken) << end;
        }
        const ResponseReading reading = readResponseAtOnce(whole + "behind it", false);
        EXPECT_EQ(reading.verdict, Verdict::Whole);
        EXPECT_EQ(reading.status, 200);
        EXPECT_EQ(reading.body, "body");
    }
}

TEST(ResponseOracle, AnnouncedEndMakesABodyWithoutLengthWhole)
{
    EXPECT_EQ(verdictOf("HTTP/1.1 200 OK\r\n\r\nbody", true), Verdict::Whole);
    EXPECT_EQ(verdictOf("HTTP/1.1 200 OK\r\n\r\nbody", false), Verdict::Broken);
    EXPECT_EQ(readResponseAtOnce("HTTP/1.1 200 OK\r\n\r\nbody", true).body, "body");
}

TEST(ResponseOracle, SizesThatAreNoneAreBroken)
{
    for (const char* length : {"-5", "+4", "4x", "99999999999999999999", "134217729"}) {
        EXPECT_EQ(verdictOf("HTTP/1.1 200 OK\r\nContent-Length: " + std::string(length) + "\r\n\r\nbody"),
                  Verdict::Broken)
            << length;
    }
    for (const char* size : {"", "z", "-0", "0x4", "4 4", "ffffffffffffffffff"}) {
        EXPECT_EQ(verdictOf(CHUNKED + std::string(size) + "\r\nbody\r\n0\r\n\r\n"), Verdict::Broken) << size;
    }
}

TEST(ResponseOracle, OtherCodingsAreBroken)
{
    for (const char* fields : {"Transfer-Encoding: gzip", "Transfer-Encoding: gzip, chunked",
                               "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked"}) {
        EXPECT_EQ(verdictOf("HTTP/1.1 200 OK\r\n" + std::string(fields) + "\r\n\r\n0\r\n\r\n"), Verdict::Broken)
            << fields;
    }
}

TEST(ResponseOracle, OddHeadsAreUndecided)
{
    for (const char* head : {"SSH-2.0", "HTTP/1.1 20 OK", "HTTP/1.1 2000 OK", "HTTP/1.1 200 OK\r\nno colon",
                             "HTTP/1.1 200 OK\r\nA: b\r\n folded"}) {
        EXPECT_EQ(verdictOf(head + std::string("\r\n\r\n")), Verdict::Undecided) << head;
    }
}

}  // namespace
