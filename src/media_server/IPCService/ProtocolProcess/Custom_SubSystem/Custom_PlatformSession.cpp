#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PlatformSession.h"

#include <Poco/Net/HTTPMessage.h>
#include <Poco/Net/HTTPRequest.h>

#include <sstream>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PlatformSocket.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_RequestTarget.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_ResponseReader.h"

namespace IPCService {
namespace MetaDataGW {

namespace {

/// The request's line and headers, the headers in the order that platforms know.
std::string headOf(const PlatformRequest& request, std::size_t bodyLength)
{
    Poco::Net::HTTPRequest head(request.method, requestTarget(request.path), Poco::Net::HTTPMessage::HTTP_1_1);
    if (request.offersKeepAlive) {
        head.setKeepAlive(true);
    }
    head.setContentType(request.contentType);
    head.setContentLength(static_cast<std::streamsize>(bodyLength));
    if (!request.offersKeepAlive) {
        head.setKeepAlive(false);
    }
    head.setHost(request.host, request.port);
    std::ostringstream text;
    head.write(text);
    return text.str();
}

}  // namespace

std::string exchangeWithPlatform(const PlatformRequest& request, const std::string& body,
                                 Poco::Net::HTTPResponse& response)
{
    const std::string head = headOf(request, body.size());
    PlatformSocket socket(request.host, request.port);
    // In one piece: there are servers that read a request once.
    socket.send(head + body);
    return readResponse([&socket](char* buffer, std::size_t size) { return socket.receive(buffer, size); }, response);
}

}  // namespace MetaDataGW
}  // namespace IPCService
