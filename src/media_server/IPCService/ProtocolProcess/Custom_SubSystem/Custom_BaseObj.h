#ifndef CUSTOM_SUBSYSTEM_CUSTOM_BASEOBJ_H
#define CUSTOM_SUBSYSTEM_CUSTOM_BASEOBJ_H

#include <Poco/JSON/Object.h>
#include <Poco/SharedPtr.h>

#include <string>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadTaskParam.h"

namespace IPCService {
namespace MetaDataGW {

/// Keys of the page request. "datatime" is the platform's spelling, and "offset" a record count.
namespace CustomObjTag {

extern const std::string IPC_SERVER_ID;
extern const std::string TASK_ID;
extern const std::string START_INDEX;
extern const std::string OFFSET;
extern const std::string DATA_TIME;
extern const std::string SECURITY_CODE;

}  // namespace CustomObjTag

/// A request to the platform.
class CustomBaseObj
{
public:
    virtual ~CustomBaseObj() = default;

    /// Replaces out with the request's text.
    virtual void Serialize(std::string& out) = 0;
};

/// A request that is a JSON object. Its members keep the order in which they are set.
class CustomJSONBaseObj : public CustomBaseObj
{
public:
    /// Replaces out with the object, a member a line, indented by one blank.
    /// @throws CustomObjCreateException "Serialize Failed" when there is no object
    void Serialize(std::string& out) override;

protected:
    Poco::SharedPtr<Poco::JSON::Object> m_pObject;
};

/// The request for one page of a download.
class CustomJSONDownloadPictureObj : public CustomJSONBaseObj
{
public:
    explicit CustomJSONDownloadPictureObj(const DownloadPictureProcParam& page);
};

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
