#ifndef CUSTOM_SUBSYSTEM_CUSTOM_DOWNLOADPICTUREPROCOBJ_H
#define CUSTOM_SUBSYSTEM_CUSTOM_DOWNLOADPICTUREPROCOBJ_H

#include <string>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_BaseObj.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadTaskParam.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PageResultReport.h"

namespace IPCService {
namespace MetaDataGW {

/// Fetches one page, has ITGT import it, waits for the import and reports its result. Download thread.
///
/// @param page  the page; its importTaskId is set to ITGT's id
/// @return 1 when the page was handed to ITGT, whether or not the import ended in time; 0 when the fetch failed
/// @throws Interrupted when the calling thread is interrupted
int DownloadPictureProcess(DownloadPictureProcParam& page);

/// Requests a page from the platform, writes the answer as a page file and tells ITGT. Download thread.
///
/// @param page     the page; its importTaskId is set to ITGT's id
/// @param request  the request's body
/// @param uri      the request's path
/// @return 0, or -1 on any failure, which is logged
/// @throws Interrupted when the calling thread is interrupted
int SendSysObj(DownloadPictureProcParam& page, CustomBaseObj& request, const std::string& uri);

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
