#include "media_server/IPCService/Public/JsonText.h"

#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <limits>
#include <string>
#include <thread>
#include <tuple>

#include "support/raw_bytes.h"

namespace {

using IPCService::JsonText::compact;
using IPCService::JsonText::fromAny;
using IPCService::JsonText::indented;
using IPCService::JsonText::parse;
using Poco::Dynamic::Var;

Poco::JSON::Object::Ptr object(const std::string& key, const Var& value)
{
    Poco::JSON::Object::Ptr result = new Poco::JSON::Object;
    result->set(key, value);
    return result;
}

std::string nested(std::size_t depth)
{
    return std::string(depth, '[') + std::string(depth, ']');
}

TEST(JsonTextString, EveryControlCharacterIsEscaped)
{
    std::string text;
    for (char character = 0; character < 0x20; ++character) {
        text += character;
    }
    EXPECT_EQ(compact(Var(text)),
              R"("\u0000\u0001\u0002\u0003\u0004\u0005\u0006\u0007\b\t\n\u000B\f\r\u000E\u000F)"
              R"(\u0010\u0011\u0012\u0013\u0014\u0015\u0016\u0017\u0018\u0019\u001A\u001B\u001C\u001D\u001E\u001F")");
}

TEST(JsonTextString, QuoteBackslashAndSlashAreEscaped)
{
    EXPECT_EQ(compact(Var(std::string("\"\\/"))), R"("\"\\\/")");
}

TEST(JsonTextString, EveryOtherByteStaysAsItIs)
{
    std::string text;
    for (int byte = 0x20; byte <= 0xFF; ++byte) {
        if (byte != '"' && byte != '\\' && byte != '/') {
            text += static_cast<char>(byte);
        }
    }
    EXPECT_EQ(compact(Var(text)), '"' + text + '"');
}

TEST(JsonTextString, NamesAreEscapedTooAndTextOfDigitsStaysText)
{
    EXPECT_EQ(compact(object("a/\"\n", std::string("007"))), R"({"a\/\"\n":"007"})");
}

TEST(JsonTextValue, NumbersAndWords)
{
    EXPECT_EQ(compact(Var(0)), "0");
    EXPECT_EQ(compact(Var(std::numeric_limits<std::int64_t>::min())), "-9223372036854775808");
    EXPECT_EQ(compact(Var(std::numeric_limits<std::uint64_t>::max())), "18446744073709551615");
    EXPECT_EQ(compact(Var(1.5)), "1.5");
    EXPECT_EQ(compact(Var(true)), "true");
    EXPECT_EQ(compact(Var(false)), "false");
    EXPECT_EQ(compact(Var()), "null");
    EXPECT_EQ(compact(object("a", Var())), R"({"a":null})");
}

/// What is parsed, its compact text, and its text indented by two.
using Document = std::tuple<std::string, std::string, std::string>;

class JsonTextDocument : public testing::TestWithParam<Document>
{
};

TEST_P(JsonTextDocument, IsWrittenOnOneLineAndIndented)
{
    const Var value = parse(std::get<0>(GetParam()));
    EXPECT_EQ(compact(value), std::get<1>(GetParam()));
    EXPECT_EQ(indented(value, 2), std::get<2>(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(
    All, JsonTextDocument,
    testing::Values(
        Document("{}", "{}", "{\n}"), Document("[]", "[]", "[\n\n]"),
        Document(R"( { "a" : 1 } )", R"({"a":1})", "{\n  \"a\" : 1\n}"),
        Document(R"({"b":"x","a":2})", R"({"a":2,"b":"x"})", "{\n  \"a\" : 2,\n  \"b\" : \"x\"\n}"),
        Document("[1,2]", "[1,2]", "[\n  1,\n  2\n]"), Document(R"({"a":{}})", R"({"a":{}})", "{\n  \"a\" : {\n  }\n}"),
        Document(R"({"a":[]})", R"({"a":[]})", "{\n  \"a\" : [\n\n  ]\n}"),
        Document(R"({"a":{"b":[1,{"c":2}]},"d":3})", R"({"a":{"b":[1,{"c":2}]},"d":3})",
                 "{\n  \"a\" : {\n    \"b\" : [\n      1,\n      {\n        \"c\" : 2\n      }\n    ]\n  },\n"
                 "  \"d\" : 3\n}"),
        Document(R"([[],{},null,true])", R"([[],{},null,true])", "[\n  [\n\n  ],\n  {\n  },\n  null,\n  true\n]")));

TEST(JsonTextIndented, TakesAnyNumberOfBlanks)
{
    const Var value = parse(R"({"a":{"b":1}})");
    EXPECT_EQ(indented(value, 1), "{\n \"a\" : {\n  \"b\" : 1\n }\n}");
    EXPECT_EQ(indented(value, 4), "{\n    \"a\" : {\n        \"b\" : 1\n    }\n}");
}

TEST(JsonTextIndented, ObjectKeepsItsInsertionOrderWhenItHasOne)
{
    Poco::JSON::Object::Ptr value = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
    value->set("z", 1);
    value->set("a", 2);
    EXPECT_EQ(indented(value, 2), "{\n  \"z\" : 1,\n  \"a\" : 2\n}");
}

TEST(JsonTextWriter, TakesObjectsAndArraysByValueAndByPointer)
{
    const Poco::JSON::Object::Ptr inner = object("a", 1);
    Poco::JSON::Array::Ptr list = new Poco::JSON::Array;
    list->add(inner);
    list->add(*inner);
    EXPECT_EQ(compact(*list), R"([{"a":1},{"a":1}])");
    EXPECT_EQ(compact(list), R"([{"a":1},{"a":1}])");
}

TEST(JsonTextParse, EscapesAreTakenApart)
{
    const Var value = parse(R"({"a":"\"\\\/\b\f\n\r\t\u0041\u00e9\ud83d\ude00"})");
    EXPECT_EQ(value.extract<Poco::JSON::Object::Ptr>()->getValue<std::string>("a"),
              "\"\\/\b\f\n\r\tA\xC3\xA9\xF0\x9F\x98\x80");
}

TEST(JsonTextParse, Takes128LevelsAndNoMore)
{
    std::string objects = "1";
    for (int level = 0; level < 128; ++level) {
        objects = R"({"a":)" + objects + "}";
    }
    for (const std::string& deep : {nested(128), objects}) {
        EXPECT_EQ(compact(parse(deep)), deep);
    }
    for (const std::string& tooDeep :
         {nested(129), nested(10000), R"({"a":)" + objects + "}", std::string(10000, '['), std::string(10000, '{')}) {
        EXPECT_THROW(parse(tooDeep), Poco::Exception);
    }
    EXPECT_EQ(compact(parse(R"({"a":1})")), R"({"a":1})") << "nothing stays of those that were too deep";
}

TEST(JsonTextParse, BracketsInTextAreNoLevels)
{
    const std::string brackets(500, '[');
    for (const std::string& text : {brackets, R"(\")" + brackets, R"(\\\")" + brackets, "]]]" + brackets}) {
        const std::string document = R"({"a":")" + text + R"(","b":")" + brackets + R"("})";
        EXPECT_EQ(compact(parse(document)), document);
    }
    for (const std::string before : {R"(["")", R"(["\\")", R"(["a")", R"(["ab")"}) {
        const std::string last = '"' + brackets + "\"]";
        EXPECT_EQ(compact(parse(before + "," + last)), before + "," + last);
        EXPECT_EQ(compact(parse(before + ", " + last)), before + "," + last);
    }
    EXPECT_EQ(compact(parse(R"(["\\",)" + nested(127) + "]")), R"(["\\",)" + nested(127) + "]");
    EXPECT_THROW(parse(R"(["\\",)" + nested(128) + "]"), Poco::Exception);
}

TEST(JsonTextParse, NeighboursShareTheirLevel)
{
    std::string many = "[[]";
    for (int neighbour = 0; neighbour < 300; ++neighbour) {
        many += ",[],{}";
    }
    EXPECT_EQ(compact(parse(many + "]")), many + "]");
    EXPECT_EQ(compact(parse("[[[[[]]]],[]]")), "[[[[[]]]],[]]");
}

TEST(JsonTextParse, WhatIsNotInsideTheDocumentIsNotTooDeep)
{
    for (const std::string& text : {"[]" + nested(128), "{}" + nested(128), std::string("]["), std::string("}}{")}) {
        try {
            parse(text);
            FAIL() << "nothing thrown: " << text;
        } catch (const Poco::Exception& exc) {
            EXPECT_EQ(exc.displayText().find("depth"), std::string::npos) << text << ": " << exc.displayText();
        }
    }
}

/** An array of so many numbers. */
std::string numbers(std::size_t count)
{
    std::string text = "[1";
    for (std::size_t number = 1; number < count; ++number) {
        text += ",1";
    }
    return text + "]";
}

void expectTooLarge(const std::string& text)
{
    try {
        parse(text);
        FAIL() << "nothing thrown for " << text.size() << " bytes";
    } catch (const Poco::Exception& exc) {
        EXPECT_EQ(exc.displayText(), "JSON Exception: Maximum size exceeded");
    }
}

TEST(JsonTextParse, TenThousandBracketsAndCommasAreTakenAndNotMore)
{
    EXPECT_EQ(compact(parse(numbers(10000))), numbers(10000));
    expectTooLarge(numbers(10001));
    std::string objects = "[{}";
    for (int i = 0; i < 4999; ++i) {
        objects += ",{}";
    }
    EXPECT_EQ(compact(parse(objects + "]")), objects + "]");
    expectTooLarge(objects + ",{}]");
    expectTooLarge("[[" + objects.substr(1) + "]]");
}

TEST(JsonTextParse, CommasInTextDoNotCount)
{
    const std::string text = "[\"" + std::string(20000, ',') + "\"]";
    EXPECT_EQ(compact(parse(text)), text);
}

TEST(JsonTextParse, OneAndAHalfMebibytesAreTakenAndNotMore)
{
    const std::string text = "[\"" + std::string(1572864 - 4, 'x') + "\"]";
    EXPECT_EQ(compact(parse(text)), text);
    expectTooLarge(text + " ");
}

/** The memory that the process has of its own, in bytes. */
std::size_t heldMemory()
{
    std::ifstream file("/proc/self/statm");
    std::size_t all = 0;
    std::size_t resident = 0;
    std::size_t shared = 0;
    file >> all >> resident >> shared;
    return (resident - shared) * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

TEST(JsonTextMemory, OfALargeDocumentIsGivenBack)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const std::size_t kept = 100U << 20;  // a sanitizer's own allocator keeps it
#else
    const std::size_t kept = 500U << 10;
#endif
    std::string deep;
    for (int i = 0; i < 99; ++i) {
        std::string object = "1";
        for (int level = 0; level < 100; ++level) {
            object = R"({"":)" + object + "}";
        }
        deep += (i > 0 ? "," : "") + object;
    }
    const std::string text = "[" + deep + "]";
    std::thread([&] {  // its memory is its own, as that of the service's threads
        parse("[1]");
        const std::size_t before = heldMemory();
        {
            const IPCService::JsonText::MemoryReturn memoryReturn;
            const Poco::Dynamic::Var document = parse(text);
            EXPECT_GT(heldMemory(), before + (4U << 20));
        }
        EXPECT_LT(heldMemory(), before + kept);
    })
        .join();
}

class JsonTextMalformed : public testing::TestWithParam<std::string>
{
};

TEST_P(JsonTextMalformed, IsRefused)
{
    EXPECT_THROW(parse(GetParam()), Poco::Exception);
}

INSTANTIATE_TEST_SUITE_P(All, JsonTextMalformed,
                         testing::Values("", " ", "{", "}", "[", R"({"a")", R"({"a":})", R"({"a":1)", R"({"a":1,})",
                                         "{a:1}", R"({"a":1}})", R"({"a":"x)", R"({"a":"\x"})", R"({"a":"\u12"})",
                                         R"({"a":01})", R"({"a":nul})", "\"\x01\"", "{\"a\":\"\xFF\"}",
                                         "{\"a\":\"\xC3\"}", "{\"a\":\"\xC0\xAF\"}", "{\"a\":\"\xED\xA0\x80\"}",
                                         "{\"\x80\":1}", "{\"a\":\"\xF4\x90\x80\x80\"}", "\xEF\xBB", "not json"));

TEST(JsonTextFromAny, TextIsItself)
{
    EXPECT_EQ(fromAny(Var(std::string("a/\"\n"))), "a/\"\n");
    EXPECT_EQ(fromAny(Var(std::string())), "");
    EXPECT_EQ(fromAny(Var(bytes("a\0b"))), bytes("a\0b"));
}

TEST(JsonTextFromAny, OtherValuesReadAsText)
{
    EXPECT_EQ(fromAny(Var(-12)), "-12");
    EXPECT_EQ(fromAny(Var(std::numeric_limits<std::uint64_t>::max())), "18446744073709551615");
    EXPECT_EQ(fromAny(Var(true)), "true");
    EXPECT_EQ(fromAny(Var(2.5)), "2.5");
}

TEST(JsonTextFromAny, ObjectsAndArraysAreIndentedByTwo)
{
    EXPECT_EQ(fromAny(parse(R"({"a":{"b":1}})")), "{\n  \"a\" : {\n    \"b\" : 1\n  }\n}");
    EXPECT_EQ(fromAny(parse("[1]")), "[\n  1\n]");
}

TEST(JsonTextFromAny, AbsentValueCannotBeConverted)
{
    try {
        fromAny(Var());
        FAIL() << "nothing thrown";
    } catch (const Poco::InvalidAccessException& exc) {
        EXPECT_EQ(exc.message(), "Can not convert empty value.");
    }
}

}  // namespace
