#include "oracle.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <set>

namespace {

/// Reads a text from its begin to its end. Each function takes what it is named after, or returns false.
class JsonReader
{
public:
    explicit JsonReader(const std::string& text) : m_text(text) {}

    bool document()
    {
        const bool taken = value();
        spaces();
        return taken && m_at == m_text.size();
    }

private:
    bool value()
    {
        spaces();
        switch (next()) {
            case '{':
                return members('}', &JsonReader::member);
            case '[':
                return members(']', &JsonReader::value);
            case '"':
                return string();
            case 't':
                return word("true");
            case 'f':
                return word("false");
            case 'n':
                return word("null");
            default:
                return number();
        }
    }

    bool members(char end, bool (JsonReader::*one)())
    {
        ++m_at;
        spaces();
        if (take(end)) {
            return true;
        }
        do {
            if (!(this->*one)()) {
                return false;
            }
            spaces();
        } while (take(','));
        return take(end);
    }

    bool member()
    {
        spaces();
        if (next() != '"' || !string()) {
            return false;
        }
        spaces();
        return take(':') && value();
    }

    bool string()
    {
        ++m_at;
        while (m_at < m_text.size() && static_cast<unsigned char>(next()) >= ' ') {
            const char character = m_text[m_at++];
            if (character == '"') {
                return true;
            }
            if (character == '\\' && !escape()) {
                return false;
            }
        }
        return false;
    }

    bool escape()
    {
        const char character = next();
        ++m_at;
        if (character != 'u') {
            return character != '\0' && std::strchr("\"\\/bfnrt", character) != nullptr;
        }
        for (int digit = 0; digit < 4; ++digit, ++m_at) {
            if (std::isxdigit(static_cast<unsigned char>(next())) == 0) {
                return false;
            }
        }
        return true;
    }

    bool number()
    {
        take('-');
        if (!take('0') && !digits()) {
            return false;
        }
        if (take('.') && !digits()) {
            return false;
        }
        if (take('e') || take('E')) {
            if (!take('+')) {
                take('-');
            }
            return digits();
        }
        return true;
    }

    bool digits()
    {
        const std::size_t begin = m_at;
        while (next() >= '0' && next() <= '9') {
            ++m_at;
        }
        return m_at > begin;
    }

    bool word(const char* text)
    {
        const bool taken = m_text.compare(m_at, std::strlen(text), text) == 0;
        m_at += taken ? std::strlen(text) : 0;
        return taken;
    }

    void spaces()
    {
        while (next() != '\0' && std::strchr(" \t\r\n", next()) != nullptr) {
            ++m_at;
        }
    }

    bool take(char wanted)
    {
        const bool taken = next() == wanted && m_at < m_text.size();
        m_at += taken ? 1 : 0;
        return taken;
    }

    /// NUL at the end, which no valid text holds.
    char next() const { return m_at < m_text.size() ? m_text[m_at] : '\0'; }

    const std::string& m_text;
    std::size_t m_at = 0;
};

constexpr std::size_t MOST_DETAIL = 2000;

std::string printable(const std::string& text)
{
    static constexpr char HEX[] = "0123456789abcdef";
    std::string result;
    for (const char character : text.substr(0, MOST_DETAIL)) {
        const auto byte = static_cast<unsigned char>(character);
        result +=
            std::isprint(byte) != 0 ? std::string{character} : std::string{'\\', 'x', HEX[byte >> 4], HEX[byte & 15]};
    }
    return result;
}

bool isVisible(char character)
{
    return character >= '!' && character <= '~';
}

/// Bytes above 127 are no harm in a header, control characters are.
bool isControl(char character)
{
    const auto byte = static_cast<unsigned char>(character);
    return byte < ' ' || byte == 0x7F;
}

}  // namespace

/// Ends the program, and prints what is not printable escaped.
void require(bool holds, const char* what, const std::string& detail)
{
    if (!holds) {
        std::cerr << "does not hold: " << what << '\n' << printable(detail) << std::endl;
        std::abort();
    }
}

bool isJson(const std::string& text)
{
    return JsonReader(text).document();
}

std::string requireRequest(const std::string& request)
{
    static const std::string BEGIN = "POST /";
    static const std::string END = " HTTP/1.1";
    static const std::set<std::string> NAMES = {"Accept", "Connection", "Content-Length", "Content-Type", "Host"};

    const std::size_t end = request.find("\r\n\r\n");
    require(end != std::string::npos, "a request has a head", request);
    std::size_t at = request.find("\r\n");
    const std::string line = request.substr(0, at);
    require(line.size() >= BEGIN.size() + END.size(), "a request line is complete", request);
    const std::string target = line.substr(BEGIN.size(), line.size() - BEGIN.size() - END.size());
    require(line == BEGIN + target + END && std::all_of(target.begin(), target.end(), isVisible),
            "the request line has one target of plain text", request);
    std::set<std::string> names;
    std::string length;
    while (at < end) {
        const std::size_t lineEnd = request.find("\r\n", at + 2);
        const std::string header = request.substr(at + 2, lineEnd - at - 2);
        const std::string name = header.substr(0, header.find(": "));
        require(NAMES.count(name) == 1 && names.insert(name).second, "a request has each header once", request);
        require(std::none_of(header.begin(), header.end(), isControl), "a header is plain text", request);
        length = name == "Content-Length" ? header.substr(name.size() + 2) : length;
        at = lineEnd;
    }
    require(names == NAMES, "a request has all headers", request);
    std::string body = request.substr(end + 4);
    require(length == std::to_string(body.size()), "the body has the announced length", request);
    require(isJson(body), "the body of a request is JSON", request);
    return body;
}
