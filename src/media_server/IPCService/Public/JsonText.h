#ifndef IPCSERVICE_JSONTEXT_H
#define IPCSERVICE_JSONTEXT_H

#include <Poco/Dynamic/Var.h>
#include <Poco/JSON/Object.h>

#include <string>

namespace IPCService {

/// JSON to text and back. The text has the same bytes with every version of the JSON library: the library's own
/// writer changed its blanks around the colon and its escapes over time, and peers compare bytes.
namespace JsonText {

/// Longer text is refused.
constexpr std::size_t LARGEST_TEXT = 3 << 19;  // bytes: 1.5 MiB

/// Parses one JSON object or array whose members need not keep their order.
/// @throws Poco::Exception on anything else, or when it is nested more than 128 deep, has more than 10,000 brackets and
///         commas, or more than 1.5 MiB
Poco::Dynamic::Var parse(const std::string& text);

/// Gives back to the system, at its end, the memory of large documents, which the C library would keep. Make it before
/// what holds them.
class MemoryReturn
{
public:
    MemoryReturn() = default;
    ~MemoryReturn();
    MemoryReturn(const MemoryReturn&) = delete;
    MemoryReturn& operator=(const MemoryReturn&) = delete;
};

/// Writes a value without blanks and line breaks.
std::string compact(const Poco::Dynamic::Var& value);

/// Writes a value over several lines, each level indented by that many blanks more.
std::string indented(const Poco::Dynamic::Var& value, unsigned blanks);

/// The string in a value, or what another kind of value reads as text: a number in decimal, an object indented.
/// @throws Poco::InvalidAccessException "Can not convert empty value." for an absent value
std::string fromAny(const Poco::Dynamic::Var& value);

}  // namespace JsonText
}  // namespace IPCService

#endif
