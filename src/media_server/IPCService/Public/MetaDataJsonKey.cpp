#include "media_server/IPCService/Public/MetaDataJsonKey.h"

namespace IPCService {
namespace MetaDataGW {
namespace MetaDataJsonKey {

#define METADATA_KEY(NAME, KEY) const std::string NAME = KEY;
#include "media_server/IPCService/Public/MetaDataJsonKey.inc"
#undef METADATA_KEY

}  // namespace MetaDataJsonKey
}  // namespace MetaDataGW
}  // namespace IPCService
