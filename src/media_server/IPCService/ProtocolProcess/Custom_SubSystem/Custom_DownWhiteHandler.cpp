#include <Poco/Dynamic/Var.h>
#include <Poco/Exception.h>
#include <Poco/URI.h>

#include <algorithm>
#include <exception>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonMsgLoop.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonPicDownloadTask.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_RequestTarget.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_SubSystem.h"
#include "media_server/IPCService/Public/ExceptionText.h"
#include "media_server/IPCService/Public/ServiceLog.h"
#include "media_server/IPCService/Public/TaskStarter.h"

namespace IPCService {
namespace MetaDataGW {

namespace {

using Poco::JSON::Object;

constexpr LogSource LOG_SOURCE{"media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonMsgLoop", 1000};

/// A member that must be a JSON string.
/// @throws Poco::Exception when it is absent or something else
std::string stringArgument(const Object& info, const char* key)
{
    return info.get(key).extract<std::string>();
}

/// A member that must be a number or convert to one.
std::uint32_t numberArgument(const Object& info, const char* key)
{
    const Poco::Dynamic::Var value = info.get(key);
    // An absent value is reported as for strings.
    return value.isEmpty() ? value.extract<Poco::UInt32>() : value.convert<Poco::UInt32>();
}

/// @throws Poco::URISyntaxException when the URL names no server, or one that would break the request's Host header
void requireServer(const Poco::URI& url)
{
    const std::string& host = url.getHost();
    const bool isText =
        std::all_of(host.begin(), host.end(), [](unsigned char byte) { return byte > ' ' && byte != 0x7F; });
    if (host.empty() || !isText || url.getPort() == 0) {
        throw Poco::URISyntaxException("URL without host or port", url.toString());
    }
}

/// Reads a command's arguments and logs each. @throws Poco::Exception at the first that is missing or wrong
DownloadTaskParam readArguments(const Object& info)
{
    DownloadTaskParam param;
    param.cameraCode = stringArgument(info, "cameraCode");
    LOG(Information, "cameraCode:%s", param.cameraCode.c_str());
    param.taskID = stringArgument(info, "taskID");
    LOG(Information, "taskID:%s", param.taskID.c_str());
    param.totalNum = numberArgument(info, "totalNum");
    LOG(Information, "totalNum:%d", static_cast<int>(param.totalNum));
    param.sqbh = stringArgument(info, "sqbh");
    LOG(Information, "sqbh:%s", param.sqbh.c_str());
    param.datatime = stringArgument(info, "datatime");
    LOG(Information, "datatime:%s", param.datatime.c_str());
    param.securityCode = stringArgument(info, "securityCode");
    LOG(Information, "securityCode:%s", param.securityCode.c_str());
    const std::string taskUrlText = stringArgument(info, "taskURL");
    LOG(Information, "taskURL:%s", taskUrlText.c_str());
    const std::string resultUrlText = stringArgument(info, "taskResultURL");
    LOG(Information, "taskResultURL:%s", resultUrlText.c_str());

    const Poco::URI taskUrl(taskUrlText);
    const Poco::URI resultUrl(resultUrlText);
    requireServer(taskUrl);
    param.ServerIp = taskUrl.getHost();
    param.ServerPort = taskUrl.getPort();
    param.ServerUri = pathOf(taskUrl);
    // Results go to the server of the task, whatever server the result URL names.
    param.ResultUri = pathOf(resultUrl);
    return param;
}

}  // namespace

bool CustomJsonMsgLoop::DownWhiteHandler(Object::Ptr& info, std::uint32_t& tag)
{
    if (isBusy(m_pSubSystem->m_bDownloading)) {
        LOG(Information, "not allowed,is downloading  white now");
        SendJsonMsg(COMMAND_CLIENT_PATH, tag, STATUS_BUSY);
        return false;
    }
    try {
        m_downloadTaskParam = readArguments(*info);
        LOG(Information, "ServerIp:%s  ServerPort:%d ServerUri:%s ResultUri:%s", m_downloadTaskParam.ServerIp.c_str(),
            static_cast<int>(m_downloadTaskParam.ServerPort), m_downloadTaskParam.ServerUri.c_str(),
            m_downloadTaskParam.ResultUri.c_str());
        // The task is busy from its making on: the next command may come before its thread runs.
        TaskStarter::of(*m_pApp).startTask(new CustomJsonPicDownloadTask(m_pSubSystem, &m_downloadTaskParam));
    } catch (const std::exception& exc) {
        LOG(Error, "DownWhiteHandler Err %s ", exceptionText(exc).c_str());
        SendJsonMsg(COMMAND_CLIENT_PATH, tag, STATUS_FAILED);
        return false;
    }
    SendJsonMsg(COMMAND_CLIENT_PATH, tag, STATUS_OK);
    return true;
}

}  // namespace MetaDataGW
}  // namespace IPCService
