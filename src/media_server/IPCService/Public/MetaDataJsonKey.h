#ifndef IPCSERVICE_METADATAJSONKEY_H
#define IPCSERVICE_METADATAJSONKEY_H

#include <string>

namespace IPCService {
namespace MetaDataGW {

/// The member names of the metadata records that the camera's analysis publishes, for consumers of
/// MetaDataNotification. The names on the wire are the publishers' own, misspellings included; two constants share
/// "StatisticsLaneIndex". MetaDataJsonKey.inc lists them; constructed before main in its order.
namespace MetaDataJsonKey {

#define METADATA_KEY(NAME, KEY) extern const std::string NAME;
#include "media_server/IPCService/Public/MetaDataJsonKey.inc"
#undef METADATA_KEY

}  // namespace MetaDataJsonKey
}  // namespace MetaDataGW
}  // namespace IPCService

#endif
