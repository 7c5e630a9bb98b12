/// Face-list configuration. An input is the file that the face library names.
#include <Poco/JSON/Object.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "harness.h"
#include "input.h"
#include "oracle.h"
#include "support/raw_bytes.h"

namespace {

void requireListRequest(const std::string& message)
{
    require(textAt(message.substr(0, 8), 0) == "/tmp/A" && textAt(message.substr(8, 8), 0) == "/tmp/CP",
            "a list goes to the face library", message.substr(0, 16));
    require(numberAt<std::uint32_t>(message, 160) == 1 && numberAt<std::int64_t>(message, 200) == 101 &&
                numberAt<std::uint32_t>(message, 208) == 3,
            "a list has its fixed fields", message.substr(160, 52));
    const std::string name = message.substr(240, 65);
    const std::size_t end = name.find('\0');
    require(end != std::string::npos && name.find_first_not_of('\0', end) == std::string::npos,
            "a list's name ends with NULs", name);
    require(message.find_first_not_of('\0', 305) == std::string::npos, "nothing stands behind a list's name");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Harness& harness = Harness::instance();
    harness.begin();
    writeFile(LISTS_PATH, std::string(reinterpret_cast<const char*>(data), size));
    harness.faceLibrary = [](const std::string& message) {
        if (numberAt<std::uint32_t>(message, 164) == 7018) {
            requireListRequest(message);
            return std::optional<std::string>(message);
        }
        return goodFaceLibrary(message);
    };
    Poco::JSON::Object::Ptr pInfo = new Poco::JSON::Object;
    pInfo->set("cameraCode", "C1");
    std::uint32_t tag = 7;
    harness.commandLoop().WhiteListClearHandler(pInfo, tag);
    require(harness.takeReplies() == std::vector<std::uint32_t>{tag}, "the command has one reply, with its tag");
    harness.end();
    return 0;
}
