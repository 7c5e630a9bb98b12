#ifndef IPCSERVICE_CUSTOMOBJCREATEEXCEPTION_H
#define IPCSERVICE_CUSTOMOBJCREATEEXCEPTION_H

#include "media_server/IPCService/Public/IPCServiceException.h"

namespace IPCService {
namespace MetaDataGW {

/// A request object cannot be serialised or its request cannot be sent. Its name() is "Custom Obj Create Failed".
POCO_DECLARE_EXCEPTION(, CustomObjCreateException, IPCService::IPCServiceException)

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
