#include "oracle.h"

#include <gtest/gtest.h>

#include <string>

namespace {

const std::string HEAD =
    "POST /a%20b?c HTTP/1.1\r\nConnection: Close\r\nContent-Type: a\r\nAccept: b\r\nContent-Length: 2\r\nHost: "
    "h\r\n\r\n";

std::string replaced(std::string text, const std::string& before, const std::string& after)
{
    return text.replace(text.find(before), before.size(), after);
}

/// What a broken request is ended with.
void expectRefused(const std::string& request, const char* why)
{
    EXPECT_DEATH(requireRequest(request), why) << request;
}

TEST(FuzzOracle, KnowsJson)
{
    for (const char* text : {"{}", "[]", "0", "-1.5e+30", "\"\"", "true", "false", "null", " [ 1 , 2 ] ",
                             R"({"a":{"b":[null,"\u00fF\"\\\/\b\f\n\r\t"]},"":0.0})", "\"\xFF\x7F\""}) {
        EXPECT_TRUE(isJson(text)) << text;
    }
}

TEST(FuzzOracle, KnowsWhatIsNoJson)
{
    for (const char* text :
         {"",      "{",  "[",      "{}{}",    "[1,]",        "[,1]", "{\"a\"}", "{\"a\":}", "{\"a\":1,}",
          "{a:1}", "01", "1.",     ".5",      "-",           "+1",   "1e",      "inf",      "nan",
          "tru",   "\"", "\"\n\"", "\"\\x\"", "\"\\u00g0\"", "\"\\", "'a'",     "[1 2]",    "\"a\" b"}) {
        EXPECT_FALSE(isJson(text)) << text;
    }
    EXPECT_FALSE(isJson(std::string("{}\0", 3)));
    EXPECT_FALSE(isJson(std::string("\"\0\"", 3)));
}

TEST(FuzzOracle, TakesTheBodyOfARequest)
{
    EXPECT_EQ(requireRequest(HEAD + "{}"), "{}");
}

TEST(FuzzOracleDeathTest, RefusesABrokenRequest)
{
    expectRefused("", "a request has a head");
    expectRefused("GET / HTTP/1.1\r\n\r\n", "a request line is complete");
    expectRefused(replaced(HEAD, "POST", "PUT") + "{}", "one target of plain text");
    expectRefused(replaced(HEAD, "a%20b", "a b") + "{}", "one target of plain text");
    expectRefused(replaced(HEAD, "a%20b", "\xC3\xA4") + "{}", "one target of plain text");
    expectRefused(replaced(HEAD, "Host: h", "Host: h\r\nX: y") + "{}", "each header once");
    expectRefused(replaced(HEAD, "Host: h", "Host: h\r\nHost: i") + "{}", "each header once");
    expectRefused(replaced(HEAD, "Host: h", "Host: \rh") + "{}", "a header is plain text");
    expectRefused(replaced(HEAD, "Host: h\r\n", "") + "{}", "a request has all headers");
    expectRefused(HEAD + "{} ", "the announced length");
    expectRefused(HEAD + "[}", "is JSON");
}

}  // namespace
