#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_RequestTarget.h"

#include <Poco/NumberFormatter.h>

#include <cstring>

namespace IPCService {
namespace MetaDataGW {

namespace {

/// What would mean something else in a request's path when it is not escaped.
constexpr char MEANINGFUL_IN_PATH[] = "%?#";

bool isMeaningful(unsigned char byte)
{
    return byte != 0 && std::strchr(MEANINGFUL_IN_PATH, byte) != nullptr;
}

bool cannotStandInLine(unsigned char byte)
{
    return byte <= ' ' || byte >= 0x7F;
}

/// Escapes those characters of a text that a condition holds for.
std::string escape(const std::string& text, bool (*condition)(unsigned char))
{
    std::string escaped;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (condition(byte)) {
            escaped += '%' + Poco::NumberFormatter::formatHex(byte, 2);
        } else {
            escaped += character;
        }
    }
    return escaped;
}

}  // namespace

std::string pathOf(const Poco::URI& url)
{
    return escape(url.getPath(), isMeaningful);
}

std::string requestTarget(const std::string& path)
{
    const char* root = path.compare(0, 1, "/") == 0 ? "" : "/";
    return root + escape(path, cannotStandInLine);
}

}  // namespace MetaDataGW
}  // namespace IPCService
