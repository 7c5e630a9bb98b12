#ifndef CUSTOM_SUBSYSTEM_CUSTOM_HTTPPARAM_H
#define CUSTOM_SUBSYSTEM_CUSTOM_HTTPPARAM_H

#include <string>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadTaskParam.h"

namespace IPCService {
namespace MetaDataGW {

/// One HTTPS request to the platform. Holds references only: everything given to it must outlive it.
class Custom_HttpParam
{
public:
    /// A content type and, behind a line break, an Accept header: set as the content type, it puts both headers into
    /// the request.
    static const std::string DEFAULT_CONTENT_TYPE;

    /// @param server       its ServerIp and ServerPort are used
    /// @param method       HTTP method
    /// @param uri          request path
    /// @param contentType  usually DEFAULT_CONTENT_TYPE
    /// @param body         the request's body
    Custom_HttpParam(const DownloadPictureProcParam& server, const std::string& method, const std::string& uri,
                     const std::string& contentType, const std::string& body);

    /// Makes the request, see exchangeWithPlatform.
    ///
    /// @param response  set to the response's body; left as it is when the exchange fails
    /// @return the response's status as it came, or 400 when the exchange failed (logged)
    /// @throws Interrupted when the calling thread is interrupted
    int SendMsgAndRecvResponse(std::string& response);

private:
    void logParam() const;

    const DownloadPictureProcParam& m_server;
    const std::string& m_method;
    const std::string& m_uri;
    const std::string& m_contentType;
    const std::string& m_body;
};

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
