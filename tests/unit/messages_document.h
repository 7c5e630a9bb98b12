#ifndef TESTS_UNIT_MESSAGES_DOCUMENT_H
#define TESTS_UNIT_MESSAGES_DOCUMENT_H

#include <string>
#include <vector>

/// One table of a Markdown document. Cells have no backticks and no blanks around them.
struct DocumentTable
{
    using Row = std::vector<std::string>;

    std::string heading;  ///< the heading that it stands under
    Row columns;
    std::vector<Row> rows;

    bool hasColumn(const std::string& column) const;

    /// @return the cell; empty when there is no such column
    std::string cell(const Row& row, const std::string& column) const;

    /// The first row with that text in a column. @throws std::out_of_range when there is none
    const Row& rowWith(const std::string& column, const std::string& text) const;
};

/// The tables and examples of a Markdown document.
class MessagesDocument
{
public:
    explicit MessagesDocument(const std::string& text);

    /// Reads docs/messages.md. @throws std::runtime_error when it is not there
    static std::string read();

    const std::vector<DocumentTable>& tables() const { return m_tables; }

    /// The first table under a heading that has a column; one without rows when there is none.
    const DocumentTable& table(const std::string& heading, const std::string& column) const;

    /// The first fenced block under a heading, without the end of its last line.
    /// @throws std::out_of_range when there is none
    std::string example(const std::string& heading) const;

private:
    struct Example
    {
        std::string heading;
        std::string text;
    };

    std::vector<DocumentTable> m_tables;
    std::vector<Example> m_examples;
};

/// The text of a file below the root of the source tree. @throws std::runtime_error when it is not there
std::string sourceText(const std::string& path);

/// What a pattern's groups match in a text, one entry a match, from the first to the last.
std::vector<std::vector<std::string>> matches(const std::string& text, const std::string& pattern);

#endif
