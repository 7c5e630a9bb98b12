#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PlatformSession.h"

#include <Poco/NumberFormatter.h>

#include <sstream>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PlatformSocket.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_ResponseReader.h"

namespace IPCService {
namespace MetaDataGW {

namespace {

/// A path as it can stand in a request line: absolute, and with blanks, line ends and whatever is not ASCII escaped.
std::string requestTarget(const std::string& path)
{
    std::string target;
    if (path.compare(0, 1, "/") != 0) {
        target += '/';
    }
    for (const char character : path) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte > ' ' && byte < 0x7F) {
            target += character;
        } else {
            target += '%' + Poco::NumberFormatter::formatHex(byte, 2);
        }
    }
    return target;
}

}  // namespace

std::string exchangeWithPlatform(const std::string& host, Poco::UInt16 port, Poco::Net::HTTPRequest& request,
                                 const std::string& body, Poco::Net::HTTPResponse& response)
{
    request.setURI(requestTarget(request.getURI()));
    if (!request.has(Poco::Net::HTTPMessage::CONNECTION)) {
        request.setKeepAlive(false);
    }
    request.setHost(host, port);
    std::ostringstream head;
    request.write(head);

    PlatformSocket socket(host, port);
    // In one piece: there are servers that read a request once.
    socket.send(head.str() + body);
    return readResponse([&socket](char* buffer, std::size_t size) { return socket.receive(buffer, size); }, response);
}

}  // namespace MetaDataGW
}  // namespace IPCService
