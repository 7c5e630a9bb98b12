#ifndef CUSTOM_SUBSYSTEM_CUSTOM_PLATFORMSESSION_H
#define CUSTOM_SUBSYSTEM_CUSTOM_PLATFORMSESSION_H

#include <Poco/Net/HTTPResponse.h>
#include <Poco/Types.h>

#include <string>

namespace IPCService {
namespace MetaDataGW {

/// A request to the platform, but for its body. Refers to its texts: they must outlive it.
struct PlatformRequest
{
    const std::string& host;
    Poco::UInt16 port;
    const std::string& method;
    const std::string& path;  ///< as requestTarget takes it
    const std::string& contentType;
    /// What its Connection header says. The connection is closed all the same.
    bool offersKeepAlive;
};

/// Makes one HTTPS request over a connection of its own, with the process's default TLS client context.
///
/// Connecting with its handshake, sending, and each wait for data end within 5 seconds. The response's text is held
/// once.
///
/// @param response  set to the response's status and headers
/// @return the response's body, whole
/// @throws Poco::Exception when any of it fails, also when the body ends before its announced end
/// @throws Interrupted when the calling thread is interrupted
std::string exchangeWithPlatform(const PlatformRequest& request, const std::string& body,
                                 Poco::Net::HTTPResponse& response);

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
