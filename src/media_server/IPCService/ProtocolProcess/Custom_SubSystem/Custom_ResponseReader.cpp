#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_ResponseReader.h"

#include <Poco/Net/NetException.h>
#include <Poco/String.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <new>
#include <optional>
#include <sstream>

namespace IPCService {
namespace MetaDataGW {

namespace {

using Poco::Net::HTTPResponse;
using Poco::Net::MessageException;

/// Several times what 30 large pictures take; without a bound a platform could have all of the memory.
constexpr std::uint64_t LARGEST_BODY = 128 << 20;  // bytes
/// What is no body: heads, chunk sizes, trailers. The largest head that the library parses fits in; and since each byte
/// of body makes up for some, chunks may be as short as one byte.
constexpr std::uint64_t LARGEST_OVERHEAD = 1 << 20;   // bytes
constexpr std::uint64_t OVERHEAD_OF_A_BODY_BYTE = 8;  // bytes
constexpr int MOST_INTERIM_ANSWERS = 100;

/// A number without a sign, and nothing else.
std::optional<std::uint64_t> parseNumber(const std::string& text, int base)
{
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [parsed, failure] = std::from_chars(text.data(), end, number, base);
    return failure == std::errc() && parsed == end ? std::optional(number) : std::nullopt;
}

/// The announced length of a body, if there is one. Two that differ leave open where the body ends.
std::optional<std::uint64_t> announcedLength(const HTTPResponse& response)
{
    std::optional<std::uint64_t> length;
    for (const auto& [name, value] : response) {
        if (Poco::icompare(name, HTTPResponse::CONTENT_LENGTH) == 0) {
            const auto number = parseNumber(Poco::trim(value), 10);
            if (!number || number != length.value_or(*number)) {
                throw MessageException("invalid Content-Length");
            }
            length = number;
        }
    }
    return length;
}

/// Whether a body comes in chunks. With any other coding it would be no page, and its end could not be known.
bool isChunked(const HTTPResponse& response)
{
    int codings = 0;
    for (const auto& [name, value] : response) {
        if (Poco::icompare(name, HTTPResponse::TRANSFER_ENCODING) == 0) {
            ++codings;
            if (codings > 1 || Poco::icompare(Poco::trim(value), HTTPResponse::CHUNKED_TRANSFER_ENCODING) != 0) {
                throw MessageException("unknown Transfer-Encoding");
            }
        }
    }
    return codings > 0;
}

/// Whether a line behind the first of a head is a field or goes on with one. The library passes over any other, or
/// takes spaces before the colon for a part of the name, and with it a length for none.
bool isFieldLine(const std::string& line)
{
    const std::size_t colon = line.find(':');
    return line[0] == ' ' || line[0] == '\t' ||
           (colon != std::string::npos && colon > 0 && line[colon - 1] != ' ' && line[colon - 1] != '\t');
}

/// Reads from a source: lines, and what is body.
class ResponseReader
{
public:
    explicit ResponseReader(const ByteSource& source) : m_source(source) {}

    /// Has the library parse a head, which is there up to its empty line by then. Empty lines before it do not count.
    void readHead(HTTPResponse& response)
    {
        if (!hasMore()) {
            throw Poco::Net::NoMessageException();
        }
        std::string head;
        for (std::string line = nextLine(); head.empty() || !line.empty(); line = nextLine()) {
            if (!head.empty() && !isFieldLine(line)) {
                throw MessageException("invalid header field");
            }
            head += line.empty() ? line : line + "\r\n";
        }
        std::istringstream stream(head + "\r\n");
        response.clear();
        response.read(stream);
        // A bare CR ends a head for the library: what stands behind it would not have been seen.
        if (stream.peek() != std::char_traits<char>::eof() || response.getStatus() < HTTPResponse::HTTP_CONTINUE ||
            response.getVersion().compare(0, 5, "HTTP/") != 0) {
            throw MessageException("invalid response head");
        }
    }

    std::string readBody(const HTTPResponse& response)
    {
        if (isChunked(response)) {
            reserve(LARGEST_BODY);
            takeChunks();
        } else if (const auto length = announcedLength(response)) {
            reserve(*length);
            take(*length);
        } else {
            reserve(LARGEST_BODY);
            while (hasMore()) {
                take(m_end - m_next);
            }
        }
        return std::move(m_body);
    }

private:
    static MessageException brokenOff() { return MessageException("response ends before its end"); }

    /// Makes room for a body at once: a text that grows is in memory twice while it moves. Room costs address space
    /// only, until bytes come.
    void reserve(std::uint64_t size)
    {
        try {
            m_body.reserve(static_cast<std::size_t>(std::min(size, LARGEST_BODY)));
        } catch (const std::bad_alloc&) {
            m_body.clear();  // no such room for what may never come: it grows
        }
    }

    void takeChunks()
    {
        while (const std::uint64_t size = chunkSize()) {
            take(size);
            if (!nextLine().empty()) {
                throw brokenOff();
            }
        }
        while (!nextLine().empty()) {
            // a trailer, which nobody asks for
        }
    }

    /// The size of the next chunk. What stands behind a semicolon are extensions.
    std::uint64_t chunkSize()
    {
        const std::string line = nextLine();
        const auto size = parseNumber(Poco::trim(line.substr(0, line.find(';'))), 16);
        return size ? *size : throw brokenOff();
    }

    /// Takes the next bytes as body.
    void take(std::uint64_t size)
    {
        if (size > LARGEST_BODY - m_body.size()) {
            throw MessageException("response is too large");
        }
        while (size > 0) {
            if (!hasMore()) {
                throw brokenOff();
            }
            const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(size, m_end - m_next));
            m_body.append(m_buffer.data() + m_next, count);
            m_next += count;
            m_overheadLeft = std::min(LARGEST_OVERHEAD, m_overheadLeft + count * OVERHEAD_OF_A_BODY_BYTE);
            size -= count;
        }
    }

    /// @return false at the announced end
    bool hasMore()
    {
        if (m_next == m_end) {
            m_next = 0;
            m_end = m_source(m_buffer.data(), m_buffer.size());
        }
        return m_next < m_end;
    }

    /// @return the next line without its end, which is CR LF or LF alone
    std::string nextLine()
    {
        std::string line;
        while (line.empty() || line.back() != '\n') {
            if (!hasMore()) {
                throw brokenOff();
            }
            if (m_overheadLeft-- == 0) {
                throw MessageException("response has too much beside its body");
            }
            line += m_buffer[m_next++];
        }
        line.pop_back();
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        return line;
    }

    const ByteSource& m_source;
    std::array<char, 16384> m_buffer;  ///< a TLS record fits
    std::size_t m_next = 0;            ///< what came and is not used yet lies from here
    std::size_t m_end = 0;             ///< to here
    std::uint64_t m_overheadLeft = LARGEST_OVERHEAD;
    std::string m_body;
};

}  // namespace

std::string readResponse(const ByteSource& source, HTTPResponse& response)
{
    ResponseReader reader(source);
    int interim = -1;
    do {
        if (++interim > MOST_INTERIM_ANSWERS) {
            throw MessageException("too many interim answers");
        }
        reader.readHead(response);
    } while (response.getStatus() < HTTPResponse::HTTP_OK &&
             response.getStatus() != HTTPResponse::HTTP_SWITCHING_PROTOCOLS);
    switch (response.getStatus()) {
        case HTTPResponse::HTTP_SWITCHING_PROTOCOLS:
        case HTTPResponse::HTTP_NO_CONTENT:
        case HTTPResponse::HTTP_NOT_MODIFIED:
            return "";
        default:
            return reader.readBody(response);
    }
}

}  // namespace MetaDataGW
}  // namespace IPCService
