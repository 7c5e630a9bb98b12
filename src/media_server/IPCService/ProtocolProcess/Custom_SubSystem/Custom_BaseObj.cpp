#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_BaseObj.h"

#include "media_server/IPCService/Public/CustomObjCreateException.h"
#include "media_server/IPCService/Public/JsonText.h"
#include "media_server/IPCService/Public/MemoryReserve.h"

namespace IPCService {
namespace MetaDataGW {

namespace CustomObjTag {

const std::string IPC_SERVER_ID = "cameraCode";
const std::string TASK_ID = "taskID";
const std::string START_INDEX = "startIndex";
const std::string OFFSET = "offset";
const std::string DATA_TIME = "datatime";
const std::string SECURITY_CODE = "securityCode";

}  // namespace CustomObjTag

namespace {

constexpr unsigned REQUEST_BLANKS = 1;

}  // namespace

void CustomJSONBaseObj::Serialize(std::string& out)
{
    if (m_pObject.isNull()) {
        throw CustomObjCreateException("Serialize Failed", 0);
    }
    const MemoryReserve reserve = jsonReserve(0);
    out = JsonText::indented(m_pObject, REQUEST_BLANKS);
}

CustomJSONDownloadPictureObj::CustomJSONDownloadPictureObj(const DownloadPictureProcParam& page)
{
    const MemoryReserve reserve = jsonReserve(0);
    m_pObject = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
    m_pObject->set(CustomObjTag::IPC_SERVER_ID, page.cameraCode);
    m_pObject->set(CustomObjTag::TASK_ID, page.taskID);
    m_pObject->set(CustomObjTag::START_INDEX, page.startIndex);
    m_pObject->set(CustomObjTag::OFFSET, page.offset);
    m_pObject->set(CustomObjTag::DATA_TIME, page.datatime);
    m_pObject->set(CustomObjTag::SECURITY_CODE, page.securityCode);
}

}  // namespace MetaDataGW
}  // namespace IPCService
