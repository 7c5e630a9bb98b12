#include "media_server/IPCService/Public/JsonText.h"

#include <Poco/JSON/Array.h>
#include <Poco/JSON/JSONException.h>
#include <Poco/JSON/ParseHandler.h>
#include <Poco/JSON/Parser.h>
#include <malloc.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <utility>

#include "media_server/IPCService/Public/MemoryReserve.h"

namespace IPCService {
namespace JsonText {

namespace {

using Poco::Dynamic::Var;
using Poco::JSON::Array;
using Poco::JSON::Object;

/// Deeper documents are refused: they serve nobody, and each level costs stack in parser, writer and destructor.
constexpr std::size_t GREATEST_DEPTH = 128;
/// Longer ones are refused, too: a value of three bytes takes up to 1100 in memory, and a string six times its length.
/// The state file of a page has 91 brackets and commas, a configuration of a thousand lists 6000 and 150 KB.
constexpr std::size_t MOST_MARKS = 10'000;
/// Of a document up to this size what the C library keeps is no more than it keeps of any other work.
constexpr std::size_t ORDINARY_MARKS = 500;
constexpr std::size_t ORDINARY_TEXT = 64 << 10;      // bytes
constexpr std::size_t END_OF_HEAP_BLOCK = 96 << 10;  // bytes; less than what comes from the system by itself

/// The quote that ends a string, or the end of the text when none does.
const char* endOfString(const char* position, const char* end)
{
    while (position < end && *position != '"') {
        position += *position == '\\' ? 2 : 1;  // whatever is escaped, a quote above all, does not end the string
    }
    return std::min(position, end);
}

/// What a text costs once it is parsed: brackets and commas, of which there are at least as many as values, and how
/// deep brackets are nested, at most. Those inside strings do not count.
struct Extent
{
    std::size_t marks = 0;
    std::size_t depth = 0;
};

Extent extentOf(const std::string& text)
{
    Extent extent;
    std::size_t depth = 0;
    const char* const end = text.data() + text.size();
    for (const char* position = text.data(); position < end; ++position) {
        switch (*position) {
            case '"':
                position = endOfString(position + 1, end);
                break;
            case '{':
            case '[':
                extent.depth = std::max(extent.depth, ++depth);
                ++extent.marks;
                break;
            case ',':
                ++extent.marks;
                break;
            case '}':
            case ']':
                depth -= depth > 0 ? 1 : 0;
                break;
            default:
                break;
        }
    }
    return extent;
}

/// Whether the thread has had a document since its last MemoryReturn that is worth a look through all of the memory.
thread_local bool wasLarge = false;

/// Bytes that most documents fit in: their text need not move as it grows.
constexpr std::size_t USUAL_SIZE = 256;

/// Blanks that an object turned into text is indented by.
constexpr unsigned DEFAULT_BLANKS = 2;

const Object* asObject(const Var& value)
{
    if (value.type() == typeid(Object::Ptr)) {
        return value.extract<Object::Ptr>().get();
    }
    return value.type() == typeid(Object) ? &value.extract<Object>() : nullptr;
}

const Array* asArray(const Var& value)
{
    if (value.type() == typeid(Array::Ptr)) {
        return value.extract<Array::Ptr>().get();
    }
    return value.type() == typeid(Array) ? &value.extract<Array>() : nullptr;
}

/// Appends one value after the other to a text.
class Writer
{
public:
    /// @param blanks  indentation of a level; 0: everything on one line
    explicit Writer(unsigned blanks) : m_blanks(blanks) { m_text.reserve(USUAL_SIZE); }

    void write(const Var& value, unsigned level)
    {
        if (const Object* object = asObject(value)) {
            writeObject(*object, level);
        } else if (const Array* array = asArray(value)) {
            writeArray(*array, level);
        } else if (value.isEmpty()) {
            m_text += "null";
        } else if (value.isNumeric()) {
            m_text += value.convert<std::string>();
        } else {
            writeString(value.convert<std::string>());
        }
    }

    std::string take() { return std::move(m_text); }

private:
    void breakLine()
    {
        if (m_blanks > 0) {
            m_text += '\n';
        }
    }

    void indent(unsigned level) { m_text.append(static_cast<std::size_t>(level) * m_blanks, ' '); }

    void writeObject(const Object& object, unsigned level)
    {
        const Object::NameList names = object.getNames();
        m_text += '{';
        breakLine();
        for (std::size_t i = 0; i < names.size(); ++i) {
            indent(level + 1);
            writeString(names[i]);
            m_text += m_blanks > 0 ? " : " : ":";
            write(object.get(names[i]), level + 1);
            if (i + 1 < names.size()) {
                m_text += ',';
            }
            breakLine();
        }
        indent(level);
        m_text += '}';
    }

    /// The last element's line break is written even when there is none: an empty array takes three lines.
    void writeArray(const Array& array, unsigned level)
    {
        m_text += '[';
        breakLine();
        for (unsigned i = 0; i < array.size(); ++i) {
            indent(level + 1);
            write(array.get(i), level + 1);
            if (i + 1 < array.size()) {
                m_text += ',';
                breakLine();
            }
        }
        breakLine();
        indent(level);
        m_text += ']';
    }

    void writeString(const std::string& text)
    {
        m_text += '"';
        for (const char character : text) {
            writeCharacter(character);
        }
        m_text += '"';
    }

    /// Escapes what JSON demands and the slash, which some parsers expect. Bytes above 127 pass as they are.
    void writeCharacter(char character)
    {
        static constexpr char HEX[] = "0123456789ABCDEF";
        switch (character) {
            case '"':
            case '\\':
            case '/':
                m_text += '\\';
                m_text += character;
                return;
            case '\b':
                m_text += "\\b";
                return;
            case '\f':
                m_text += "\\f";
                return;
            case '\n':
                m_text += "\\n";
                return;
            case '\r':
                m_text += "\\r";
                return;
            case '\t':
                m_text += "\\t";
                return;
            default:
                break;
        }
        const auto byte = static_cast<unsigned char>(character);
        if (byte < 0x20) {
            m_text += "\\u00";
            m_text += HEX[byte >> 4];
            m_text += HEX[byte & 0x0F];
        } else {
            m_text += character;
        }
    }

    const unsigned m_blanks;
    std::string m_text;
};

std::string written(const Var& value, unsigned blanks)
{
    Writer writer(blanks);
    writer.write(value, 0);
    return writer.take();
}

}  // namespace

Var parse(const std::string& text)
{
    const Extent extent = extentOf(text);
    // The parser has a limit of its own, which not every version obeys.
    if (extent.depth > GREATEST_DEPTH) {
        throw Poco::JSON::JSONException("Maximum depth exceeded");
    }
    if (extent.marks > MOST_MARKS || text.size() > LARGEST_TEXT) {
        throw Poco::JSON::JSONException("Maximum size exceeded");
    }
    if (extent.marks > ORDINARY_MARKS || text.size() > ORDINARY_TEXT) {
        wasLarge = true;
    }
    const MemoryReserve reserve = jsonReserve(text.size());
    return Poco::JSON::Parser(new Poco::JSON::ParseHandler(false)).parse(text);
}

MemoryReturn::~MemoryReturn()
{
    if (wasLarge) {
        ::malloc_trim(0);
        // What lies free at the end of a thread's own heap goes back only when a block of at least 64 KB is freed
        // there.
        void* volatile block = std::malloc(END_OF_HEAP_BLOCK);
        std::free(block);
        wasLarge = false;
    }
}

std::string compact(const Var& value)
{
    return written(value, 0);
}

std::string indented(const Var& value, unsigned blanks)
{
    return written(value, blanks);
}

std::string fromAny(const Var& value)
{
    if (asObject(value) != nullptr || asArray(value) != nullptr) {
        return indented(value, DEFAULT_BLANKS);
    }
    return value.convert<std::string>();
}

}  // namespace JsonText
}  // namespace IPCService
