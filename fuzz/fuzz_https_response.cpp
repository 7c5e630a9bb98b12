/// HTTPS responses, through to the page file and to the report. The first part of an input says how the bytes come in:
/// its last letter how a connection ends (c closed, u without the TLS farewell, r reset, s silent), each byte before
/// that how much one read gives. The other parts are the responses of the connections of a download of three pages.
#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "input.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonPicDownloadTask.h"
#include "oracle.h"
#include "played_platform.h"
#include "support/raw_bytes.h"
#include "surroundings.h"

namespace {

constexpr char PAGE_FOLDER[] = "/tmp/mmcblk0/face_basic/faceLib/";

PlayedPlatform::End endOf(char letter)
{
    switch (letter) {
        case 'u':
            return PlayedPlatform::End::ClosedWithoutFarewell;
        case 'r':
            return PlayedPlatform::End::Reset;
        case 's':
            return PlayedPlatform::End::Silent;
        default:
            return PlayedPlatform::End::Closed;
    }
}

IPCService::MetaDataGW::DownloadTaskParam threePages()
{
    IPCService::MetaDataGW::DownloadTaskParam task;
    task.ServerIp = "127.0.0.1";
    task.ServerPort = 443;
    task.ServerUri = "/page";
    task.ResultUri = "/result";
    task.totalNum = 61;
    return task;
}

bool isChunked(std::string response)
{
    std::transform(response.begin(), response.end(), response.begin(),
                   [](unsigned char character) { return static_cast<char>(std::tolower(character)); });
    return response.find("chunked") != std::string::npos;
}

/// A page file that ITGT is told of.
void requirePageFile(const std::string& message, const std::string& response)
{
    const std::string name = textAt(message, 448);
    require(textAt(message, 316) == PAGE_FOLDER, "ITGT is told the folder of the pages", textAt(message, 316));
    std::ifstream file(PAGE_FOLDER + name, std::ios::binary);
    require(file.is_open(), "ITGT is told of a file that is there", name);
    const std::string page{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    require(page.find('\0') == std::string::npos, "a page file ends before its first NUL", page);
    require(page.size() <= response.size(), "a page file is no longer than what came in", page);
    require(isChunked(response) || response.find(page) != std::string::npos, "a page file has the bytes that came in",
            page);
    std::filesystem::remove(PAGE_FOLDER + name);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::vector<std::string> parts = partsOf(data, size);
    Surroundings& surroundings = Surroundings::instance();
    surroundings.begin();
    PlayedPlatform& platform = PlayedPlatform::instance();
    platform.responses.assign(parts.begin() + 1, parts.end());
    if (!parts[0].empty()) {
        platform.end = endOf(parts[0].back());
        platform.fragments = parts[0].substr(0, parts[0].size() - 1);
    }
    surroundings.itgt = [&](const std::string& message) {
        if (numberAt<std::uint32_t>(message, 164) == 7020) {
            requirePageFile(message, parts[platform.requests.size()]);
        }
        return goodItgt(message);
    };
    const IPCService::MetaDataGW::DownloadTaskParam task = threePages();
    Poco::AutoPtr<IPCService::MetaDataGW::CustomJsonPicDownloadTask> pTask(
        new IPCService::MetaDataGW::CustomJsonPicDownloadTask(&surroundings.subSystem(), &task));
    pTask->runTask();
    surroundings.end();
    return 0;
}
