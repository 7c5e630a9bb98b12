#ifndef CUSTOM_SUBSYSTEM_CUSTOM_PLATFORMSESSION_H
#define CUSTOM_SUBSYSTEM_CUSTOM_PLATFORMSESSION_H

#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Types.h>

#include <string>

namespace IPCService {
namespace MetaDataGW {

/// Makes one HTTPS request over a connection of its own, with the process's default TLS client context.
///
/// Connecting with its handshake, sending, and each wait for data end within 5 seconds. The response's text is held
/// once.
///
/// @param host, port  the server
/// @param request     method, path and headers; Host is added. A Connection header is sent as it stands, without one
///                    "Close" is sent
/// @param body        the request's body
/// @param response    set to the response's status and headers
/// @return the response's body, whole
/// @throws Poco::Exception when any of it fails, also when the body ends before its announced end
/// @throws Interrupted when the calling thread is interrupted
std::string exchangeWithPlatform(const std::string& host, Poco::UInt16 port, Poco::Net::HTTPRequest& request,
                                 const std::string& body, Poco::Net::HTTPResponse& response);

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
