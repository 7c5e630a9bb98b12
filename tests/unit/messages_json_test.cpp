#include <Poco/JSON/Object.h>
#include <Poco/JSON/ParseHandler.h>
#include <Poco/JSON/Parser.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "messages_document.h"

// The tables of JSON members in docs/messages.md. What the service reads is held against the places where the code
// reads it. What it writes is held against the document's examples, which the tests of the examples hold against the
// running code. Names, types and order count.

namespace {

using Poco::JSON::Object;
using Problems = std::vector<std::string>;
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

Problems problemsOf(const std::string& text)
{
    const MessagesDocument document(text);
    static const std::map<std::string, Members> read = membersOfTheCode();
    std::map<std::string, Members> expected = read;
    expected.merge(membersOfTheExamples(document));

    std::map<std::string, Members> found;
    for (const DocumentTable& table : document.tables()) {
        for (const DocumentTable::Row& row : table.rows) {
            if (table.hasColumn("Key")) {
                found[table.heading].emplace_back(table.cell(row, "Key"), table.cell(row, "Type"));
            }
        }
    }
    Problems problems;
    if (found != expected) {
        problems.push_back("the code has " + testing::PrintToString(expected) + ", the document " +
                           testing::PrintToString(found));
    }
    return problems;
}

/// The lines of the document that list a member, and for each what they list.
std::map<std::size_t, std::string> memberLines(const std::string& text)
{
    std::map<std::size_t, std::string> lines;
    const MessagesDocument document(text);
    for (const DocumentTable& table : document.tables()) {
        for (std::size_t i = 0; table.hasColumn("Key") && i < table.rows.size(); ++i) {
            lines[table.lines[i]] = table.heading;
        }
    }
    return lines;
}

TEST(MessagesJson, HasTheMembersOfTheCode)
{
    EXPECT_THAT(problemsOf(MessagesDocument::read()), testing::IsEmpty());
}

TEST(MessagesJson, IsComparedInFull)
{
    // 2 of a command, 8 and 1 of its arguments, 1 and 5 of the face lists, 1 and 2 of the state file; 1 of a reply, 6
    // of a page request, 7 and 2 of a report.
    EXPECT_GE(memberLines(MessagesDocument::read()).size(), 36U);
}

TEST(MessagesJson, WritesTheReportSorted)
{
    const MessagesDocument document(MessagesDocument::read());
    for (const std::string heading : {"Task-result report", "ImportInfo"}) {
        std::vector<std::string> keys;
        for (const DocumentTable::Row& row : document.table(heading, "Key").rows) {
            keys.push_back(row[0]);
        }
        EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end())) << heading;
    }
}

/// Makes a change to each line of the document that lists a member, one at a time, and expects that it is found.
/// @param change  changes the lines; false: this one cannot be changed so
/// @return how many were changed
std::size_t changeEach(const std::function<bool(std::vector<std::string>& lines, std::size_t line)>& change)
{
    const std::string text = MessagesDocument::read();
    std::size_t changed = 0;
    for (const auto& [line, heading] : memberLines(text)) {
        std::vector<std::string> lines = linesOf(text);
        const std::string before = lines[line];
        if (change(lines, line)) {
            EXPECT_THAT(problemsOf(joined(lines)), testing::SizeIs(1)) << heading << ": " << before;
            ++changed;
        }
    }
    return changed;
}

TEST(MessagesJson, EveryChangeIsFound)
{
    using Lines = std::vector<std::string>;
    const std::size_t all = memberLines(MessagesDocument::read()).size();
    // The key's last letter, and the type.
    for (const auto& [pattern, offset] : std::map<std::string, std::size_t>{{"` | ", 0}, {" | ", 3}}) {
        EXPECT_EQ(changeEach([&, at = offset, behind = pattern](Lines& lines, std::size_t line) {
                      lines[line].insert(lines[line].find(behind) + at, "x");
                      return true;
                  }),
                  all);
    }
    EXPECT_EQ(changeEach([](Lines& lines, std::size_t line) {
                  lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(line));
                  return true;
              }),
              all);
    EXPECT_EQ(changeEach([](Lines& lines, std::size_t line) {
                  lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(line), "| `another` | string | |");
                  return true;
              }),
              all);
    const std::map<std::size_t, std::string> members = memberLines(MessagesDocument::read());
    EXPECT_GE(changeEach([&members](Lines& lines, std::size_t line) {
                  std::swap(lines[line], lines[line + 1]);
                  return members.count(line + 1) != 0;
              }),
              25U);
}

}  // namespace
