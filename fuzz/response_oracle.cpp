#include "response_oracle.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <vector>

namespace {

using Verdict = ResponseReading::Verdict;

constexpr char DIGITS[] = "0123456789";
constexpr std::size_t LARGEST_BODY = 134217728;
constexpr int MOST_INTERIM_ANSWERS = 100;
// What any library takes.
constexpr std::size_t MOST_FIELDS = 90;
constexpr std::size_t LONGEST_NAME = 200;
constexpr std::size_t LONGEST_VALUE = 8000;

bool isText(const std::string& text)
{
    return std::all_of(text.begin(), text.end(),
                       [](char byte) { return byte == '\t' || (byte >= ' ' && byte <= '~'); });
}

std::string lowered(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char byte) { return static_cast<char>(std::tolower(byte)); });
    return text;
}

/// Cuts a line off the rest, with its end. @return false when there is no line end any more
bool takeLine(std::string& rest, std::string& line)
{
    const std::size_t end = rest.find('\n');
    if (end == std::string::npos) {
        return false;
    }
    line = rest.substr(0, end > 0 && rest[end - 1] == '\r' ? end - 1 : end);
    rest.erase(0, end + 1);
    return true;
}

struct Head
{
    bool isOrdinary = false;
    int status = 0;
    bool isChunked = false;
    bool hasOtherCoding = false;
    bool hasLength = false;
    std::string length;
};

/// "HTTP/1.1 200 OK", the reason free to be anything or missing.
bool readStatusLine(const std::string& line, Head& head)
{
    if ((line.compare(0, 9, "HTTP/1.1 ") != 0 && line.compare(0, 9, "HTTP/1.0 ") != 0) || !isText(line) ||
        line.size() < 12 || line.find_first_not_of(DIGITS, 9) < 12 || (line.size() > 12 && line[12] != ' ') ||
        line.size() > LONGEST_NAME || line[9] == '0') {
        return false;
    }
    head.status = std::stoi(line.substr(9, 3));
    return true;
}

/// "Name: value", with one space, and the value without any around it.
bool readField(const std::string& line, Head& head)
{
    const std::size_t colon = line.find(": ");
    if (colon == 0 || colon == std::string::npos || colon > LONGEST_NAME || !isText(line)) {
        return false;
    }
    const std::string name = lowered(line.substr(0, colon));
    const std::string value = line.substr(colon + 2);
    const bool isToken = std::all_of(name.begin(), name.end(),
                                     [](unsigned char byte) { return std::isalnum(byte) != 0 || byte == '-'; });
    if (!isToken || value.empty() || value.size() > LONGEST_VALUE || value.find_first_of(" \t") == 0 ||
        value.find_last_of(" \t") == value.size() - 1 || value.find("=?") != std::string::npos) {
        return false;
    }
    if (name == "content-length") {
        if (head.hasLength) {
            return false;
        }
        head.hasLength = true;
        head.length = value;
    } else if (name == "transfer-encoding") {
        head.hasOtherCoding = head.hasOtherCoding || head.isChunked || lowered(value) != "chunked";
        head.isChunked = true;
    }
    return true;
}

Head readHead(const std::vector<std::string>& lines)
{
    Head head;
    head.isOrdinary =
        lines.size() <= MOST_FIELDS && readStatusLine(lines[0], head) &&
        std::all_of(lines.begin() + 1, lines.end(), [&](const std::string& line) { return readField(line, head); });
    return head;
}

/// Takes the lines of a head off the rest. @return false when it has no end
bool takeHead(std::string& rest, std::vector<std::string>& lines)
{
    std::string line;
    while (takeLine(rest, line)) {
        if (!line.empty()) {
            lines.push_back(line);
        } else if (!lines.empty()) {
            return true;
        }
    }
    return false;
}

/// A number within the largest body. @return false for what is none, or larger
bool readSize(const std::string& digits, int base, std::size_t& size)
{
    const char* const allowed = base == 16 ? "0123456789abcdefABCDEF" : DIGITS;
    const std::size_t significant = digits.find_first_not_of('0');
    if (digits.empty() || digits.find_first_not_of(allowed) != std::string::npos ||
        (significant != std::string::npos && digits.size() - significant > 12)) {
        return false;
    }
    size = std::stoul(digits, nullptr, base);
    return size <= LARGEST_BODY;
}

ResponseReading readChunks(std::string rest, ResponseReading reading)
{
    std::string line;
    while (takeLine(rest, line)) {
        line.erase(std::min(line.find(';'), line.size()));
        const std::size_t begin = line.find_first_not_of(" \t\r\v\f");
        line = begin == std::string::npos ? "" : line.substr(begin, line.find_last_not_of(" \t\r\v\f") + 1 - begin);
        std::size_t size = 0;
        if (!readSize(line, 16, size) || size > rest.size()) {
            return reading;
        }
        if (size == 0) {
            do {
                if (!takeLine(rest, line)) {
                    return reading;
                }
            } while (!line.empty());
            reading.verdict = Verdict::Whole;
            return reading;
        }
        reading.body += rest.substr(0, size);
        rest.erase(0, size);
        if (!takeLine(rest, line) || !line.empty()) {
            return reading;
        }
    }
    return reading;
}

}  // namespace

ResponseReading readResponseAtOnce(const std::string& bytes, bool announced)
{
    std::string rest = bytes;
    ResponseReading reading;
    Head head;
    for (int interim = 0; head.status < 200 && head.status != 101; ++interim) {
        std::vector<std::string> lines;
        if (interim > MOST_INTERIM_ANSWERS || !takeHead(rest, lines)) {
            return reading;
        }
        head = readHead(lines);
        if (!head.isOrdinary) {
            reading.verdict = Verdict::Undecided;
            return reading;
        }
    }
    reading.status = head.status;
    if (head.status == 101 || head.status == 204 || head.status == 304) {
        reading.verdict = Verdict::Whole;
        return reading;
    }
    if (head.hasOtherCoding) {
        return reading;
    }
    if (head.isChunked) {
        return readChunks(rest, reading);
    }
    std::size_t size = rest.size();
    if (head.hasLength ? readSize(head.length, 10, size) && size <= rest.size() : announced) {
        reading.verdict = Verdict::Whole;
        reading.body = rest.substr(0, size);
    }
    return reading;
}
