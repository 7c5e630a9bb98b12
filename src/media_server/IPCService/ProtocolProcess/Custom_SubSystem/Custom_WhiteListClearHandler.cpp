#include <Poco/Dynamic/Var.h>
#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>

#include <string>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonMsgLoop.h"
#include "media_server/IPCService/Public/JsonText.h"
#include "media_server/IPCService/Public/MessageExchange.h"
#include "media_server/IPCService/Public/MsgData.h"
#include "media_server/IPCService/Public/ServiceLog.h"
#include "media_server/IPCService/Public/WholeFile.h"

namespace IPCService {
namespace MetaDataGW {

namespace {

using Poco::Dynamic::Var;
using Poco::JSON::Array;
using Poco::JSON::Object;

constexpr LogSource LOG_SOURCE{"media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonMsgLoop", 3000};

constexpr std::uint32_t SET_SUB_TYPE = 1;
constexpr std::uint32_t SET_COUNT = 3;
constexpr std::uint32_t CLEAR_ACCEPTED = 0;

/// Asks the face-library peer to clear. @return true, with the face-list configuration's path, when it accepts
bool requestClear(MessageExchange& exchange, std::string& configPath)
{
    MSG_DATA message{};
    setFaceMsgHeader(message, FACE_LIBRARY_PATH, EXCHANGE_PATH, 0, CMD_FACE_LIB_CLEAR);
    if (exchange.exchange(message) != CMD_FACE_LIB_CLEAR || MsgField::ClearStatus::get(message) != CLEAR_ACCEPTED) {
        return false;
    }
    configPath = MsgField::ClearConfigPath::get(message);
    return true;
}

void logReadFailure(WholeFileResult result, const std::string& path)
{
    switch (result) {
        case WholeFileResult::OpenFailed:
            LOG_AT(Error, 311, " [Custom] download picture, open file %s error.", path.c_str());
            break;
        case WholeFileResult::SizeFailed:
            LOG_AT(Error, 320, " state file %s error.", path.c_str());
            break;
        case WholeFileResult::AllocationFailed:
            LOG_AT(Error, 329, " malloc pJsonConfig error.");
            break;
        case WholeFileResult::ReadFailed:
            LOG_AT(Error, 337, " fread pJsonConfig error.");
            break;
        case WholeFileResult::Read:
            break;
    }
}

/// Sends one message for each face list.
/// @throws Poco::Exception at the first list that lacks a member or has it in a wrong type
void setFaceLists(MessageExchange& exchange, const Var& config)
{
    const Array::Ptr lists = config.extract<Object::Ptr>()->getArray("FaceListsArry");
    // One buffer for all lists: from the second on, a request has the header of the reply before it. A peer may rely
    // on that to move the exchange elsewhere.
    MSG_DATA message{};
    setFaceMsgHeader(message, FACE_LIBRARY_PATH, EXCHANGE_PATH, SET_SUB_TYPE, CMD_ALARM_FACE_LIB_SET);
    MsgField::Count::set(message, SET_COUNT);
    for (unsigned i = 0; i < lists->size(); ++i) {
        const Object::Ptr list = lists->get(i).extract<Object::Ptr>();
        const auto id = list->get("ID").convert<Poco::UInt64>();
        const std::string name = JsonText::fromAny(list->get("FaceListName"));
        MsgField::ListId::set(message, id);
        MsgField::ListName::set(message, name);
        MsgField::ListOnControl::set(message, list->get("OnControl").convert<Poco::Int32>());
        MsgField::ListThreshold::set(message, list->get("Threshold").convert<Poco::Int64>());
        MsgField::ListType::set(message, list->get("FaceListType").convert<Poco::Int32>());
        exchange.exchange(message);
        LOG_AT(Information, 407, "CMD_ALARM_FACE_LIB_SET TaskID:%lld FaceListName %s", static_cast<long long>(id),
               name.c_str());
    }
}

}  // namespace

int CustomJsonMsgLoop::WhiteListClearHandler(Object::Ptr& info, std::uint32_t& tag)
{
    const std::string cameraCode = JsonText::fromAny(info->get("cameraCode"));
    LOG_AT(Information, 290, "cameraCode:%s", cameraCode.c_str());
    MessageExchange exchange;
    std::string configPath;
    if (!requestClear(exchange, configPath)) {
        return 1;  // refused: the client gets no reply
    }
    LOG_AT(Information, 306, " [Custom] download picture file %s.", configPath.c_str());
    std::string text;
    const WholeFileResult result = readWholeFile(configPath, text, JsonText::LARGEST_TEXT);
    if (result != WholeFileResult::Read) {
        SendJsonMsg(COMMAND_CLIENT_PATH, tag, STATUS_FAILED);
        logReadFailure(result, configPath);
        return 0;
    }
    Var config;
    try {
        config = JsonText::parse(text);
    } catch (const Poco::Exception& exc) {
        SendJsonMsg(COMMAND_CLIENT_PATH, tag, STATUS_FAILED);
        LOG_AT(Error, 357, "parser Err %s ", exc.displayText().c_str());
        return 0;
    }
    try {
        if (!config.isEmpty()) {
            setFaceLists(exchange, config);
        }
    } catch (const Poco::Exception& exc) {
        SendJsonMsg(COMMAND_CLIENT_PATH, tag, STATUS_FAILED);
        LOG_AT(Error, 416, "facelist_ary parser Err %s ", exc.displayText().c_str());
        return 0;
    }
    SendJsonMsg(COMMAND_CLIENT_PATH, tag, STATUS_OK);
    return 1;
}

}  // namespace MetaDataGW
}  // namespace IPCService
