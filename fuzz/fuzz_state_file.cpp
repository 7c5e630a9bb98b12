/// Import state file. An input is the file that ITGT names.
#include <cstddef>
#include <cstdint>
#include <string>

#include "harness.h"
#include "in_process_platform.h"
#include "input.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PageResultReport.h"
#include "oracle.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Harness& harness = Harness::instance();
    harness.begin();
    writeFile(STATE_PATH, std::string(reinterpret_cast<const char*>(data), size));
    InProcessPlatform& platform = InProcessPlatform::instance();
    platform.serve(2, goodPlatform());
    IPCService::MetaDataGW::DownloadPictureProcParam page;
    page.ServerIp = "127.0.0.1";
    page.ServerPort = 443;
    page.ResultUri = "/result";
    page.cameraCode = "C\"1";
    page.taskID = "T\\1";
    page.securityCode = "S\n1";
    page.offset = 30;
    IPCService::MetaDataGW::ReportPageResult(page, STATE_PATH);

    require(platform.requests.size() <= 1, "a page is reported at most once");
    for (const std::string& request : platform.requests) {
        const std::string document = requireRequest(request);
        const std::string end =
            R"(],"cameraCode":"C\"1","datatime":"2024-05-06 07:08:09","offset":30,"securityCode":"S\n1",)"
            R"("startIndex":0,"taskID":"T\\1"})";
        require(document.compare(0, 15, R"({"ImportInfo":[)") == 0, "a report begins with the pictures", document);
        require(document.size() > end.size() && document.compare(document.size() - end.size(), end.size(), end) == 0,
                "a report ends with its page", document);
    }
    harness.end();
    return 0;
}
