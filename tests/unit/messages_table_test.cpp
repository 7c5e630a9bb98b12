#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_CommandHead.h"
#include "media_server/IPCService/Public/MsgData.h"
#include "messages_document.h"
#include "messages_layouts.h"
#include "public/utils/alg_utils/utils_srvfs_eventcache_wire.h"

// docs/messages.md against the layouts of the code, both ways. What is compared is a function of the document's text,
// so that the tests can show that a changed document is found.

using namespace EventCacheWire;
using IPCService::MetaDataGW::CommandHead;

namespace {

using Problems = std::vector<std::string>;
using Field = LayoutField;
using Pairs = std::set<std::pair<std::string, std::string>>;

std::vector<Field> fieldsOf(const DocumentTable& table)
{
    std::vector<Field> fields;
    for (const DocumentTable::Row& row : table.rows) {
        fields.push_back({table.cell(row, "In"), table.cell(row, "Offset"), table.cell(row, "Width"),
                          table.cell(row, "Type"), table.cell(row, "Field")});
    }
    return fields;
}

/// Adds what one list has and the other has not.
void compareFields(const Layout& layout, const std::vector<Field>& documented, Problems& problems)
{
    for (const Field& field : layout.fields) {
        if (std::count(documented.begin(), documented.end(), field) != 1) {
            problems.push_back(layout.heading + ": the code has " + describe(field));
        }
    }
    for (const Field& field : documented) {
        if (std::count(layout.fields.begin(), layout.fields.end(), field) != 1) {
            problems.push_back(layout.heading + ": the document has " + describe(field));
        }
    }
}

void compareLayouts(const MessagesDocument& document, Problems& problems)
{
    std::set<std::string> known;
    for (const Layout& layout : layouts()) {
        known.insert(layout.heading);
        compareFields(layout, fieldsOf(document.table(layout.heading, "Offset")), problems);
    }
    known.insert("Ring-buffer record");  // its width is that of a text
    for (const DocumentTable& table : document.tables()) {
        if (table.hasColumn("Offset") && known.erase(table.heading) == 0) {
            problems.push_back(table.heading + ": one table more than the code has layouts");
        }
    }
}

/// What the two groups of a pattern match in a source file.
Pairs pairsIn(const std::string& path, const std::string& pattern)
{
    Pairs pairs;
    for (const auto& match : matches(sourceText(path), pattern)) {
        pairs.emplace(match[0], match[1]);
    }
    return pairs;
}

/// Adds the rows of a table of two columns that differ from what the code has.
void comparePairs(const DocumentTable& table, const std::string& key, const std::string& value, const Pairs& expected,
                  Problems& problems)
{
    Pairs found;
    for (const DocumentTable::Row& row : table.rows) {
        found.emplace(table.cell(row, key), table.cell(row, value));
    }
    if (found != expected || table.rows.size() != expected.size()) {
        problems.push_back(key + " and " + value + " are to be " + testing::PrintToString(expected) + ", not " +
                           testing::PrintToString(found));
    }
}

void compareNumbers(const MessagesDocument& document, Problems& problems)
{
#define SIZE(Struct) {#Struct, std::to_string(sizeof(Struct))}
    comparePairs(document.table("Sizes", "Struct"), "Struct", "Bytes",
                 {SIZE(CommandHead), SIZE(MSG_DATA), SIZE(SubscriptionHeader), SIZE(SubscriptionBody),
                  SIZE(NotificationHead), SIZE(BufferDescriptor), SIZE(MapRequest), SIZE(BlockHeader)},
                 problems);
    static const Pairs commands = pairsIn("src/media_server/IPCService/Public/MsgData.h", R"((CMD_\w+) = (\d+),)");
    comparePairs(document.table("Message codes", "Command"), "Name", "Command", commands, problems);
    static const Pairs constants =
        pairsIn("src/public/utils/alg_utils/utils_srvfs_eventcache_wire.h", R"(constexpr [\w: ]+ ([A-Z_]+) = (\w+);)");
    comparePairs(document.table("Event cache", "Constant"), "Constant", "Value", constants, problems);
}

/// The places of the parts of a mapped buffer, for both kinds of producers.
void compareMappedBuffer(const MessagesDocument& document, Problems& problems)
{
    const std::string header = std::to_string(sizeof(BlockHeader));
    const std::string gap = std::to_string(OLD_PRODUCER_GAP);
    const std::string behindGap = std::to_string(sizeof(BlockHeader) + OLD_PRODUCER_GAP);
    const std::vector<DocumentTable::Row> expected = {{"0", "0", header, "[block header](#block-header)"},
                                                      {"", header, gap, "ignored"},
                                                      {header, behindGap, "n", "data"}};
    const DocumentTable& table = document.table("Mapped buffer", "Before 8.0.1");
    if (table.rows != expected || table.columns != DocumentTable::Row{"Since 8.0.1", "Before 8.0.1", "Width", "What"}) {
        problems.push_back("Mapped buffer: is to be " + testing::PrintToString(expected));
    }
}

Problems problemsOf(const std::string& text)
{
    const MessagesDocument document(text);
    Problems problems;
    compareLayouts(document, problems);
    compareNumbers(document, problems);
    compareMappedBuffer(document, problems);
    return problems;
}

/// Whether the tests above speak of a table.
bool isCompared(const DocumentTable& table)
{
    return (table.hasColumn("Offset") && table.heading != "Ring-buffer record") || table.hasColumn("Bytes") ||
           table.hasColumn("Constant") || table.hasColumn("Command") || table.hasColumn("Before 8.0.1");
}

/// The rows that the tests above speak of, as lines of the document.
std::vector<std::size_t> comparedLines(const std::string& text)
{
    std::vector<std::size_t> lines;
    const MessagesDocument document(text);
    for (const DocumentTable& table : document.tables()) {
        if (isCompared(table)) {
            lines.insert(lines.end(), table.lines.begin(), table.lines.end());
        }
    }
    return lines;
}

/// The last digit of a cell counted up by one; the cell as it is when it does not end in a digit or bracket.
std::string countedUp(std::string cell)
{
    const std::size_t last = cell.find_last_of("0123456789");
    if (last != std::string::npos) {
        cell[last] = cell[last] == '9' ? '0' : static_cast<char>(cell[last] + 1);
    }
    return cell;
}

/// Each way to change one number, type or name of a row.
std::vector<std::string> changesOf(const DocumentTable& table, const DocumentTable::Row& row)
{
    std::vector<std::string> changed;
    for (std::size_t column = 0; column < row.size(); ++column) {
        const std::string& name = table.columns[column];
        if (name == "Meaning" || name == "Message" || name == "From" || name == "To" || name == "subType" ||
            name == "module" || name == "Answered") {
            continue;
        }
        DocumentTable::Row other = row;
        other[column] = countedUp(row[column]) != row[column] ? countedUp(row[column]) : row[column] + "x";
        std::string line = "|";
        for (const std::string& cell : other) {
            line += " " + cell + " |";
        }
        changed.push_back(line);
    }
    return changed;
}

TEST(MessagesTable, HasTheLayoutsOfTheCode)
{
    EXPECT_THAT(problemsOf(MessagesDocument::read()), testing::IsEmpty());
}

TEST(MessagesTable, IsComparedInFull)
{
    std::size_t fields = 0;
    for (const Layout& layout : layouts()) {
        fields += layout.fields.size();
    }
    EXPECT_EQ(fields, 63U);
    // Besides the layouts: 8 sizes, 6 codes, 6 constants, 3 parts of a mapped buffer.
    EXPECT_EQ(comparedLines(MessagesDocument::read()).size(), fields + 23);
}

TEST(MessagesTable, LayoutsOfWholeMessagesLeaveNoByteOut)
{
    for (const Layout& layout : layouts()) {
        std::size_t end = 0;
        for (const Field& field : layout.fields) {
            if (layout.size != 0) {
                EXPECT_EQ(std::stoul(field.offset), end) << layout.heading << ": " << field.name;
                end += std::stoul(field.width);
            }
        }
        EXPECT_EQ(end, layout.size) << layout.heading;
    }
}

TEST(MessagesTable, NamesEveryPayloadFieldOfTheCode)
{
    std::set<std::string> named;
    for (const Layout& layout : socketLayouts()) {
        for (const Field& field : layout.fields) {
            if (!field.direction.empty()) {
                named.insert(field.name);
            }
        }
    }
    std::set<std::string> declared;
    for (const auto& match :
         matches(sourceText("src/media_server/IPCService/Public/MsgData.h"), R"(using (\w+) = Msg(?:Number|Text)<)")) {
        declared.insert(match[0]);
    }
    EXPECT_EQ(named, declared);
}

TEST(MessagesTable, ChangedCellIsFound)
{
    const std::string text = MessagesDocument::read();
    std::size_t tried = 0;
    const MessagesDocument document(text);
    for (const DocumentTable& table : document.tables()) {
        for (std::size_t i = 0; isCompared(table) && i < table.rows.size(); ++i) {
            for (const std::string& changed : changesOf(table, table.rows[i])) {
                std::vector<std::string> lines = linesOf(text);
                lines[table.lines[i]] = changed;
                EXPECT_THAT(problemsOf(joined(lines)), testing::Not(testing::IsEmpty())) << changed;
                ++tried;
            }
        }
    }
    EXPECT_GT(tried, 300U);
}

TEST(MessagesTable, MissingRowAndRowTooManyAreFound)
{
    const std::string text = MessagesDocument::read();
    for (const std::size_t line : comparedLines(text)) {
        std::vector<std::string> lines = linesOf(text);
        const auto row = lines.begin() + static_cast<std::ptrdiff_t>(line);
        lines.insert(row, std::string(*row));
        EXPECT_THAT(problemsOf(joined(lines)), testing::Not(testing::IsEmpty())) << lines[line];
        lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(line),
                    lines.begin() + static_cast<std::ptrdiff_t>(line) + 2);
        EXPECT_THAT(problemsOf(joined(lines)), testing::Not(testing::IsEmpty())) << linesOf(text)[line];
    }
}

TEST(MessagesTable, MissingTableIsFound)
{
    const std::string text = MessagesDocument::read();
    const MessagesDocument document(text);
    for (const DocumentTable& table : document.tables()) {
        if (isCompared(table)) {
            std::vector<std::string> lines = linesOf(text);
            for (std::size_t line = table.lines.front() - 2; line <= table.lines.back(); ++line) {
                lines[line].clear();
            }
            EXPECT_THAT(problemsOf(joined(lines)), testing::Not(testing::IsEmpty())) << table.heading;
        }
    }
}

TEST(MessagesTable, TableThatTheCodeDoesNotKnowIsFound)
{
    const std::string more = "\n# Another message\n\n| Offset | Width | Type | Field |\n| --- | --- | --- | --- |\n";
    EXPECT_THAT(problemsOf(MessagesDocument::read() + more), testing::SizeIs(1));
}

}  // namespace
