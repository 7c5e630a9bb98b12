#include <memory>
#include <new>

#include "bounds_checked.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonMsgLoop.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_SubSystem.h"
#include "media_server/IPCService/Public/JsonText.h"
#include "media_server/IPCService/Public/ServiceLog.h"
#include "public/utils/alg_utils/utils_process_ringbuf.h"

namespace IPCService {
namespace MetaDataGW {

namespace {

constexpr LogSource LOG_SOURCE{"media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonMsgLoop", 2000};

}  // namespace

int CustomJsonMsgLoop::FaceNotHitHandler(Poco::JSON::Object::Ptr& info, std::uint32_t& tag)
{
    const std::string text = JsonText::compact(info);
    const std::size_t size = text.size() + 1;
    const std::unique_ptr<char[]> buffer(new (std::nothrow) char[size]);
    // Not a string copy: those refuse text above 32 KiB, and a command's body may be longer.
    if (!buffer || memcpy_s(buffer.get(), size, text.c_str(), size) != 0) {
        SendJsonMsg(COMMAND_CLIENT_PATH, tag, STATUS_FAILED);
        LOG(Error, "malloc fail.");
        return 0;
    }
    const PutRecord record = {buffer.get(), 0, static_cast<std::uint32_t>(size)};
    ProcessRingBufHndl* pRingBuf = m_pSubSystem->m_ringBufHandle;
    if (pRingBuf != nullptr && Utils_ProcessRingBufPut(pRingBuf, &record, 0) != 0) {
        LOG(Error, "metadata put ring buf fail.");
        SendJsonMsg(COMMAND_CLIENT_PATH, tag, STATUS_FAILED);
        return 0;
    }
    SendJsonMsg(COMMAND_CLIENT_PATH, tag, STATUS_OK);
    return 1;
}

}  // namespace MetaDataGW
}  // namespace IPCService
