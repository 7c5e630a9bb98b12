#ifndef PROTOCOLPROCESS_METADATANOTIFICATION_H
#define PROTOCOLPROCESS_METADATANOTIFICATION_H

#include <Poco/JSON/Object.h>
#include <Poco/Notification.h>

namespace IPCService {
namespace MetaDataGW {

/// One metadata record. Its keys are those of MetaDataJsonKey.
class MetaDataNotification : public Poco::Notification
{
public:
    /// @param pObject  not owned; lives only while the notification is being posted
    explicit MetaDataNotification(Poco::JSON::Object* pObject) : m_pObject(pObject) {}

    /// The record. An observer that needs it after its call has returned must copy it.
    Poco::JSON::Object* m_pObject;
};

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
