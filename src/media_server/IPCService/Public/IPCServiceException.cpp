#include "media_server/IPCService/Public/IPCServiceException.h"

#include <typeinfo>

namespace IPCService {

POCO_IMPLEMENT_EXCEPTION(IPCServiceException, Poco::ApplicationException, "IPC Service exception")

}  // namespace IPCService
