#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_RequestTarget.h"

#include <Poco/URI.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using IPCService::MetaDataGW::pathOf;
using IPCService::MetaDataGW::requestTarget;
using namespace std::string_literals;

TEST(RequestTargetTest, PathOfAUrlKeepsTheEscapesThatItsMeaningHangsOn)
{
    EXPECT_EQ(pathOf(Poco::URI("https://host/a%20b%2Fc/%25%3F%23%C3%A4?query#fragment")), "/a b/c/%25%3F%23\xC3\xA4");
    EXPECT_EQ(pathOf(Poco::URI("https://host/a%00b")), "/a\0b"s);
    EXPECT_EQ(pathOf(Poco::URI("https://host")), "");
}

TEST(RequestTargetTest, TargetIsAbsoluteAndPrintable)
{
    EXPECT_EQ(requestTarget("/a b/%3F!~"), "/a%20b/%3F!~");
    EXPECT_EQ(requestTarget("/\0\x01\x1F\x7F\x80\xFF\r\n"s), "/%00%01%1F%7F%80%FF%0D%0A");
    EXPECT_EQ(requestTarget("a"), "/a");
    EXPECT_EQ(requestTarget(""), "/");
}

TEST(RequestTargetTest, UrlComesOutAsItWentInWhereItWasEscapedAsFarAsItHadToBe)
{
    EXPECT_EQ(requestTarget(pathOf(Poco::URI("https://host/a%20b%3Fc?q"))), "/a%20b%3Fc");
}

}  // namespace
