#ifndef TESTS_UNIT_SUPPORT_RAW_BYTES_H
#define TESTS_UNIT_SUPPORT_RAW_BYTES_H

#include <cstddef>
#include <cstring>
#include <string>

/// Numbers and text at byte offsets, for messages that tests build and read without the code under test. All
/// machines this runs on are little-endian.

template <typename Number>
Number numberAt(const std::string& bytes, std::size_t offset)
{
    Number value = 0;
    std::memcpy(&value, &bytes.at(offset + sizeof value - 1) - (sizeof value - 1), sizeof value);
    return value;
}

template <typename Number>
void putNumber(std::string& bytes, std::size_t offset, Number value)
{
    std::memcpy(&bytes.at(offset + sizeof value - 1) - (sizeof value - 1), &value, sizeof value);
}

/// The text at an offset, up to its NUL.
inline std::string textAt(const std::string& bytes, std::size_t offset)
{
    return bytes.substr(offset, bytes.find('\0', offset) - offset);
}

inline void putText(std::string& bytes, std::size_t offset, const std::string& text)
{
    bytes.replace(offset, text.size(), text);
}

/// The bytes of a plain object.
template <typename Object>
std::string bytesOf(const Object& object)
{
    return std::string(reinterpret_cast<const char*>(&object), sizeof object);
}

/// A string literal with the NULs in it.
template <std::size_t Size>
std::string bytes(const char (&literal)[Size])
{
    return std::string(literal, Size - 1);
}

#endif
