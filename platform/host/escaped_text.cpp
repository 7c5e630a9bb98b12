#include "escaped_text.h"

#include <cstddef>

namespace {

unsigned char byteAt(std::string_view text, std::size_t index)
{
    return static_cast<unsigned char>(text[index]);
}

/** Where the characters that need no look end that stand at index. */
std::size_t endOfAscii(std::string_view text, std::size_t index)
{
    while (index < text.size() && byteAt(text, index) >= 0x20 && byteAt(text, index) < 0x7F) {
        ++index;
    }
    return index;
}

bool isContinuation(unsigned char byte)
{
    return (byte & 0xC0U) == 0x80U;
}

/** Bytes of the multi-byte character that starts at index, 0 if they are no valid UTF-8 or a C1 control character. */
std::size_t printableSequence(std::string_view text, std::size_t index)
{
    const unsigned char first = byteAt(text, index);
    const std::size_t length = first >= 0xF5 ? 0 : first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : first >= 0xC2 ? 2 : 0;
    if (length == 0 || text.size() - index < length) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if (!isContinuation(byteAt(text, index + i))) {
            return 0;
        }
    }
    const unsigned char second = byteAt(text, index + 1);
    const bool control = first == 0xC2 && second < 0xA0;
    const bool overlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    const bool surrogate = first == 0xED && second >= 0xA0;
    const bool beyondUnicode = first == 0xF4 && second >= 0x90;
    return control || overlong || surrogate || beyondUnicode ? 0 : length;
}

void appendEscaped(std::string& result, unsigned char byte)
{
    static const char digits[] = "0123456789abcdef";
    switch (byte) {
        case '\n':
            result += "\\n";
            return;
        case '\r':
            result += "\\r";
            return;
        case '\t':
            result += "\\t";
            return;
        default:
            result += "\\x";
            result += digits[byte >> 4U];
            result += digits[byte & 0x0FU];
    }
}

}  // namespace

std::string escapedText(std::string_view text)
{
    std::string result;
    result.reserve(text.size());
    std::size_t index = 0;
    while (index < text.size()) {
        const std::size_t end = endOfAscii(text, index);
        result.append(text, index, end - index);
        index = end;
        if (index == text.size()) {
            break;
        }
        const unsigned char byte = byteAt(text, index);
        const std::size_t length = byte < 0x80 ? 0 : printableSequence(text, index);
        if (length == 0) {
            appendEscaped(result, byte);
            ++index;
        } else {
            result.append(text, index, length);
            index += length;
        }
    }
    return result;
}
