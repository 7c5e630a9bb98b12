#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_HttpParam.h"

#include <Poco/Net/HTTPResponse.h>

#include <exception>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PlatformSession.h"
#include "media_server/IPCService/Public/ExceptionText.h"
#include "media_server/IPCService/Public/Interruption.h"
#include "media_server/IPCService/Public/ServiceLog.h"

namespace IPCService {
namespace MetaDataGW {

namespace {

constexpr LogSource LOG_SOURCE{"media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_HttpParam"};
constexpr char RULE[] = "------------------------------";

int logFailure(const std::string& text)
{
    Interruption::check();
    LOG(Error, "SendMsgAndRecvResponse err:%s", text.c_str());
    return Poco::Net::HTTPResponse::HTTP_BAD_REQUEST;
}

}  // namespace

const std::string Custom_HttpParam::DEFAULT_CONTENT_TYPE =
    "application/json;charset=UTF-8\r\nAccept: application/json;charset=UTF-8";

Custom_HttpParam::Custom_HttpParam(const DownloadPictureProcParam& server, const std::string& method,
                                   const std::string& uri, const std::string& contentType, const std::string& body)
    : m_server(server), m_method(method), m_uri(uri), m_contentType(contentType), m_body(body)
{
}

int Custom_HttpParam::SendMsgAndRecvResponse(std::string& response)
{
    logParam();
    try {
        // The platform expects the header although the connection is not used again.
        const PlatformRequest request{m_server.ServerIp, m_server.ServerPort, m_method, m_uri, m_contentType, true};
        Poco::Net::HTTPResponse httpResponse;
        response = exchangeWithPlatform(request, m_body, httpResponse);
        LOG(Information, "Http Status $%d", static_cast<int>(httpResponse.getStatus()));
        return httpResponse.getStatus();
    } catch (const std::exception& exc) {
        return logFailure(exceptionText(exc));
    }
}

void Custom_HttpParam::logParam() const
{
    LOG(Information, RULE);
    LOG(Information, "Http Param:");
    LOG(Information, "Http Server IP: %s", m_server.ServerIp.c_str());
    LOG(Information, "Http Server Port: %d", static_cast<int>(m_server.ServerPort));
    LOG(Information, "Http Method:%s ", m_method.c_str());
    LOG(Information, "Http URI:%s ", m_uri.c_str());
    LOG(Information, RULE);
}

}  // namespace MetaDataGW
}  // namespace IPCService
