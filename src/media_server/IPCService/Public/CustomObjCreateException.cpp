#include "media_server/IPCService/Public/CustomObjCreateException.h"

#include <typeinfo>

namespace IPCService {
namespace MetaDataGW {

POCO_IMPLEMENT_EXCEPTION(CustomObjCreateException, IPCService::IPCServiceException, "Custom Obj Create Failed")

}  // namespace MetaDataGW
}  // namespace IPCService
