/// The URLs of a command. The parts of an input are taskURL and taskResultURL of a whiteListDown command.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "harness.h"
#include "in_process_platform.h"
#include "input.h"
#include "oracle.h"
#include "support/raw_bytes.h"

namespace {

constexpr std::uint32_t TAG = 7;

std::string jsonString(const std::string& text)
{
    static constexpr char HEX[] = "0123456789abcdef";
    std::string result = "\"";
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < ' ') {
            result += {'\\', 'u', '0', '0', HEX[byte >> 4], HEX[byte & 15]};
        } else {
            result += character == '"' || character == '\\' ? std::string{'\\', character} : std::string{character};
        }
    }
    return result + '"';
}

std::string commandWith(const std::string& taskUrl, const std::string& resultUrl)
{
    return R"({"taskName":"whiteListDown","taskInfo":{"cameraCode":"C1","taskID":"T1","totalNum":1,"sqbh":"Q1",)"
           R"("datatime":"D1","securityCode":"S1","taskURL":)" +
           jsonString(taskUrl) + R"(,"taskResultURL":)" + jsonString(resultUrl) + "}}";
}

std::string headOf(const std::string& body)
{
    std::string head(280, '\0');
    putText(head, 0, "/tmp/HK");
    putNumber<std::uint32_t>(head, 240, TAG);
    putNumber<std::uint32_t>(head, 256, static_cast<std::uint32_t>(body.size()));
    return head;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::vector<std::string> urls = partsOf(data, size);
    urls.resize(2);
    const std::string body = commandWith(urls[0], urls[1]);
    const std::vector<std::string> datagrams = {headOf(body), body};

    Harness& harness = Harness::instance();
    harness.begin();
    InProcessPlatform& platform = InProcessPlatform::instance();
    platform.serve(2, goodPlatform());
    std::size_t taken = 0;
    harness.giveInput = [&] {
        if (taken == datagrams.size()) {
            return false;
        }
        harness.sendCommand(datagrams[taken++]);
        return true;
    };
    harness.commandLoop().runTask();
    require(harness.takeReplies() == std::vector<std::uint32_t>{TAG}, "the command has one reply, with its tag");
    const bool accepted = harness.hasDownload();
    harness.resume();
    harness.runDownloads();
    // Whatever the URLs are, an accepted command has its page asked for and reported; both requests are looked at.
    require(platform.requests.size() == (accepted ? 2 : 0), "an accepted command reaches the platform");
    harness.end();
    return 0;
}
