#ifndef CUSTOM_SUBSYSTEM_CUSTOM_PAGERESULTREPORT_H
#define CUSTOM_SUBSYSTEM_CUSTOM_PAGERESULTREPORT_H

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadTaskParam.h"

namespace IPCService {
namespace MetaDataGW {

/// Reports to the platform how the import of each picture of a page ended: reads ITGT's state file, asks ITGT for the
/// time, and posts the result document. Every failure is logged and ends the report; the download goes on.
/// Download thread.
///
/// @param page       the page and its task
/// @param statePath  ITGT's state file, NUL-terminated
/// @throws Interrupted when the calling thread is interrupted
void ReportPageResult(const DownloadPictureProcParam& page, const char* statePath);

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
