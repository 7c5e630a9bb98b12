#include <Poco/JSON/Object.h>
#include <Poco/JSON/ParseHandler.h>
#include <Poco/JSON/Parser.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "messages_document.h"

// The tables of JSON members in docs/messages.md. What the service reads is held against the places where the code
// reads it. What it writes is held against the document's examples, which the tests of the examples hold against the
// running code. Names, types and order count.

namespace {

using Poco::JSON::Object;
using Members = std::vector<std::pair<std::string, std::string>>;  // key and type

const std::string COMMANDS = "src/media_server/IPCService/ProtocolProcess/Custom_SubSystem/";

/// The type that a table gives to what follows a read of the code.
std::string typeRead(const std::string& begin, const std::string& array, const std::string& end)
{
    static const std::map<std::string, std::string> TYPES = {{"extract<Array::Ptr>", "array"},
                                                             {"extract<Object::Ptr>", "object"},
                                                             {"convert<Poco::UInt64>", "u64"},
                                                             {"convert<Poco::Int64>", "i64"},
                                                             {"convert<Poco::Int32>", "i32"}};
    if (!begin.empty() || (array.empty() && end.empty())) {
        return "text";
    }
    return array.empty() ? TYPES.at(end) : "array";
}

/// The members that the code reads of one object, in the order of the reads.
/// @param owner  the last letters before the arrow: the variable with the object
Members membersRead(const std::string& source, const std::string& owner)
{
    Members members;
    const std::string pattern =
        R"re((fromAny\()?\b)re" + owner + R"re(->get(Array)?\("?(\w+)"?\)\)?(?:\.(\w+<[\w:]+>))?)re";
    for (const auto& match : matches(source, pattern)) {
        members.emplace_back(match[2], typeRead(match[0], match[1], match[3]));
    }
    return members;
}

/// The arguments that whiteListDown reads.
Members argumentsRead()
{
    Members members;
    for (const auto& match : matches(sourceText(COMMANDS + "Custom_DownWhiteHandler.cpp"),
                                     R"re((string|number)Argument\(info, "(\w+)"\))re")) {
        members.emplace_back(match[1], match[0]);
    }
    return members;
}

/// What the code reads, by heading.
std::map<std::string, Members> membersOfTheCode()
{
    const std::string loop = sourceText(COMMANDS + "Custom_JsonMsgLoop.cpp");
    const std::string clear = sourceText(COMMANDS + "Custom_WhiteListClearHandler.cpp");
    const std::string report = sourceText(COMMANDS + "Custom_PageResultReport.cpp");
    // The command loop's keys are constants with the key's own name.
    EXPECT_EQ(matches(loop, R"(const std::string (\w+) = "\1";)").size(), 2U);
    return {{"Command body", membersRead(loop, "command")},
            {"whiteListDown", argumentsRead()},
            {"whiteListClear", membersRead(clear, "info")},
            {"Face-list configuration file", membersRead(clear, R"(config\.extract<Object::Ptr>\(\))")},
            {"FaceListsArry", membersRead(clear, "list")},
            {"Import state file", membersRead(report, R"(state\.extract<Object::Ptr>\(\))")},
            {"TaskResultArry", membersRead(report, "result")}};
}

/// The members of an object that the service writes, in their order.
Members membersWritten(const Object& object)
{
    Members members;
    for (const std::string& key : object.getNames()) {
        const bool string = object.get(key).isString();
        members.emplace_back(key, object.isArray(key) ? "array" : string ? "string" : "number");
    }
    return members;
}

/// The object in the body of an example: all of it, or what stands behind the empty line.
Object::Ptr bodyOf(const std::string& example)
{
    const std::size_t headerEnd = example.find("\n\n");
    Poco::JSON::Parser parser(new Poco::JSON::ParseHandler(true));
    return parser.parse(headerEnd == std::string::npos ? example : example.substr(headerEnd)).extract<Object::Ptr>();
}

/// What the service writes, by heading.
std::map<std::string, Members> membersOfTheExamples(const MessagesDocument& document)
{
    const Object::Ptr report = bodyOf(document.example("Task-result report"));
    return {{"Reply body", membersWritten(*bodyOf(document.example("Reply body")))},
            {"Page request", membersWritten(*bodyOf(document.example("Page request")))},
            {"Task-result report", membersWritten(*report)},
            {"ImportInfo", membersWritten(*report->getArray("ImportInfo")->getObject(0))}};
}

TEST(MessagesJson, HasTheMembersOfTheCode)
{
    const MessagesDocument document(MessagesDocument::read());
    std::map<std::string, Members> documented;
    for (const DocumentTable& table : document.tables()) {
        for (const DocumentTable::Row& row : table.rows) {
            if (table.hasColumn("Key")) {
                documented[table.heading].emplace_back(table.cell(row, "Key"), table.cell(row, "Type"));
            }
        }
    }
    std::map<std::string, Members> expected = membersOfTheCode();
    expected.merge(membersOfTheExamples(document));
    EXPECT_EQ(documented, expected);
}

}  // namespace
