#ifndef TESTS_UNIT_MESSAGES_LAYOUT_H
#define TESTS_UNIT_MESSAGES_LAYOUT_H

#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "messages_document.h"

/// The fields of a message, or of what a command keeps in its payload, in the columns that the tables have for them.
using Layout = std::vector<DocumentTable::Row>;
inline const DocumentTable::Row COLUMNS = {"In", "Offset", "Width", "Type", "Field"};
using Pairs = std::multiset<std::pair<std::string, std::string>>;

template <typename Value>
std::string typeName()
{
    using Element = std::remove_extent_t<Value>;
    if constexpr (std::is_array_v<Value>) {
        return (std::is_same_v<Element, char> ? "char[" : "bytes[") + std::to_string(std::extent_v<Value>) + "]";
    } else if constexpr (std::is_enum_v<Value>) {
        return typeName<std::underlying_type_t<Value>>();
    } else {
        static_assert(std::is_integral_v<Value>);
        return (std::is_signed_v<Value> ? "i" : "u") + std::to_string(8 * sizeof(Value));
    }
}

template <typename Member>
DocumentTable::Row member(const std::string& name, std::size_t offset)
{
    return {"", std::to_string(offset), std::to_string(sizeof(Member)), typeName<Member>(), name};
}

/// The members of a struct, which leave no byte of it out.
template <typename Struct>
Layout whole(const Layout& members)
{
    std::size_t end = 0;
    for (const DocumentTable::Row& row : members) {
        EXPECT_EQ(row[1], std::to_string(end)) << row.back();
        end += std::stoul(row[2]);
    }
    EXPECT_EQ(end, sizeof(Struct));
    return members;
}

/// One member of a struct.
#define MEMBER(Struct, name) member<decltype(Struct::name)>(#name, offsetof(Struct, name))

/// What the two groups of a pattern match in a source file.
inline Pairs pairsIn(const std::string& path, const std::string& pattern)
{
    Pairs pairs;
    for (const auto& match : matches(sourceText(path), pattern)) {
        pairs.emplace(match[0], match[1]);
    }
    return pairs;
}

/// docs/messages.md, to be held against what declares its messages.
class MessagesTable : public testing::Test
{
protected:
    Pairs pairs(const std::string& heading, const std::string& key, const std::string& value) const
    {
        Pairs found;
        const DocumentTable& table = document.table(heading, key);
        for (const DocumentTable::Row& row : table.rows) {
            found.emplace(table.cell(row, key), table.cell(row, value));
        }
        return found;
    }

    /// The fields of every table that has offsets, by its heading.
    std::map<std::string, Layout> documented() const
    {
        std::map<std::string, Layout> layouts;
        for (const DocumentTable& table : document.tables()) {
            // The width of a ring-buffer record is that of a text.
            if (!table.hasColumn("Offset") || table.heading == "Ring-buffer record") {
                continue;
            }
            for (const DocumentTable::Row& row : table.rows) {
                DocumentTable::Row field;
                for (const std::string& column : COLUMNS) {
                    field.push_back(table.cell(row, column));
                }
                layouts[table.heading].push_back(field);
            }
        }
        return layouts;
    }

    const MessagesDocument document{MessagesDocument::read()};
};

#endif
