#include "messages_document.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace {

constexpr char FENCE[] = "```";

bool beginsWith(const std::string& text, const std::string& begin)
{
    return text.compare(0, begin.size(), begin) == 0;
}

/// A cell without its blanks and backticks.
std::string bare(std::string cell)
{
    cell.erase(std::remove(cell.begin(), cell.end(), '`'), cell.end());
    const std::size_t begin = cell.find_first_not_of(' ');
    return begin == std::string::npos ? "" : cell.substr(begin, cell.find_last_not_of(' ') - begin + 1);
}

/// The cells of "| a | b |".
DocumentTable::Row cellsOf(const std::string& line)
{
    DocumentTable::Row cells;
    std::istringstream stream(line.substr(1));
    for (std::string cell; std::getline(stream, cell, '|');) {
        cells.push_back(bare(cell));
    }
    return cells;
}

bool isRule(const std::string& line)
{
    return line.find_first_not_of("|-: ") == std::string::npos && line.find('-') != std::string::npos;
}

}  // namespace

bool DocumentTable::hasColumn(const std::string& column) const
{
    return std::find(columns.begin(), columns.end(), column) != columns.end();
}

std::string DocumentTable::cell(const Row& row, const std::string& column) const
{
    const auto place = static_cast<std::size_t>(std::find(columns.begin(), columns.end(), column) - columns.begin());
    return place < row.size() ? row[place] : "";
}

const DocumentTable::Row& DocumentTable::rowWith(const std::string& column, const std::string& text) const
{
    for (const Row& row : rows) {
        if (cell(row, column) == text) {
            return row;
        }
    }
    throw std::out_of_range("no row with " + column + " " + text + " under " + heading);
}

MessagesDocument::MessagesDocument(const std::string& text)
{
    std::string heading;
    bool inExample = false;
    bool inTable = false;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (beginsWith(line, FENCE)) {
            inExample = !inExample;
            if (inExample) {
                m_examples.push_back({heading, ""});
            }
        } else if (inExample) {
            std::string& example = m_examples.back().text;
            example += (example.empty() ? "" : "\n") + line;
        } else if (beginsWith(line, "#")) {
            heading = line.substr(line.find(' ') + 1);
        } else if (beginsWith(line, "|") && !inTable) {
            m_tables.push_back({heading, cellsOf(line), {}});
        } else if (beginsWith(line, "|") && !isRule(line)) {
            m_tables.back().rows.push_back(cellsOf(line));
        }
        inTable = !inExample && beginsWith(line, "|");
    }
}

std::string MessagesDocument::read()
{
    return sourceText("docs/messages.md");
}

const DocumentTable& MessagesDocument::table(const std::string& heading, const std::string& column) const
{
    static const DocumentTable NONE;
    for (const DocumentTable& table : m_tables) {
        if (table.heading == heading && table.hasColumn(column)) {
            return table;
        }
    }
    return NONE;
}

std::string MessagesDocument::example(const std::string& heading) const
{
    for (const Example& example : m_examples) {
        if (example.heading == heading) {
            return example.text;
        }
    }
    throw std::out_of_range("no example under " + heading);
}

std::string sourceText(const std::string& path)
{
    std::ifstream file(CAMGATE_SOURCE_DIR "/" + path, std::ios::binary);
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    return std::string(std::istreambuf_iterator<char>(file), {});
}

std::vector<std::vector<std::string>> matches(const std::string& text, const std::string& pattern)
{
    const std::regex expression(pattern);
    std::vector<std::vector<std::string>> found;
    for (std::sregex_iterator match(text.begin(), text.end(), expression), end; match != end; ++match) {
        found.emplace_back();
        for (std::size_t group = 1; group < match->size(); ++group) {
            found.back().push_back((*match)[group]);
        }
    }
    return found;
}
