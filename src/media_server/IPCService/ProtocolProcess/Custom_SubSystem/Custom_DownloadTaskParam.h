#ifndef CUSTOM_SUBSYSTEM_CUSTOM_DOWNLOADTASKPARAM_H
#define CUSTOM_SUBSYSTEM_CUSTOM_DOWNLOADTASKPARAM_H

#include <cstdint>
#include <string>

namespace IPCService {
namespace MetaDataGW {

/// What a whiteListDown command orders.
struct DownloadTaskParam
{
    std::string ServerIp;          ///< platform host, from the task URL
    std::uint16_t ServerPort = 0;  ///< from the task URL
    std::string ServerUri;         ///< request path of the page download
    std::string ResultUri;         ///< request path of the result report, on the same host
    std::string securityCode;
    std::string cameraCode;
    std::string taskID;
    std::uint32_t totalNum = 0;  ///< records that the platform holds
    std::string sqbh;            ///< part of the contract; nothing reads it
    std::string datatime;
};

/// One page of a download.
struct DownloadPictureProcParam
{
    std::string ServerIp;
    std::uint16_t ServerPort = 0;
    std::string ServerUri;
    std::string ResultUri;
    std::string securityCode;
    std::string cameraCode;
    std::string taskID;
    std::uint32_t startIndex = 0;  ///< index of the page's first record
    std::uint32_t offset = 0;      ///< records asked for in the page
    std::string datatime;
    std::int64_t importTaskId = 0;  ///< ITGT's import job for the page
};

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
