/// HTTPS responses, through to the page file and to the report. The first part of an input says how the bytes come in:
/// its last letter how a connection ends (c closed, u without close_notify, r reset, s silent), each byte before
/// that how much one read gives. The other parts are the responses of the connections of a download of three pages.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "harness.h"
#include "in_process_platform.h"
#include "input.h"
#include "oracle.h"
#include "response_oracle.h"
#include "support/exchange_messages.h"

namespace {

constexpr char PAGE_FOLDER[] = "/tmp/mmcblk0/face_basic/faceLib/";

/// Ends a connection as its letter says.
void end(PlayedConnection& connection, char letter)
{
    switch (letter) {
        case 'u':
            return connection.hangUp();
        case 'r':
            return connection.reset();
        case 's':
            return connection.waitUntilClientLeaves();
        default:
            return;
    }
}

bool isPage(const ResponseReading& reading)
{
    return reading.verdict == ResponseReading::Verdict::Whole && reading.status == 200;
}

/// A page file that ITGT is told of: all of a whole response with status 200.
void requirePageFile(const std::string& message, const std::string& response, const ResponseReading& reading)
{
    const std::string name = textAt(message, 448);
    require(textAt(message, 316) == PAGE_FOLDER, "ITGT is told the folder of the pages", textAt(message, 316));
    std::ifstream file(PAGE_FOLDER + name, std::ios::binary);
    require(file.is_open(), "ITGT is told of a file that is there", name);
    const std::string page{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    require(page.find('\0') == std::string::npos, "a page file ends before its first NUL", page);
    require(page.size() <= response.size(), "a page file is no longer than what came in", page);
    if (reading.verdict != ResponseReading::Verdict::Undecided) {
        require(isPage(reading), "a response that ITGT is told of is whole", response);
        require(page == reading.body.substr(0, reading.body.find('\0')), "a page file is the body that came in", page);
    }
    std::filesystem::remove(PAGE_FOLDER + name);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::vector<std::string> parts = partsOf(data, size);
    Harness& harness = Harness::instance();
    harness.begin();
    InProcessPlatform& platform = InProcessPlatform::instance();
    const char letter = parts[0].empty() ? 'c' : parts[0].back();
    platform.fragments = parts[0].substr(0, parts[0].size() - (parts[0].empty() ? 0 : 1));
    platform.serve(parts.size() - 1, [&](PlayedConnection& connection, const std::string&) {
        connection.send(parts[platform.requests.size()]);
        end(connection, letter);
    });
    const bool announced = letter != 'u' && letter != 'r' && letter != 's';
    std::size_t pages = 0;
    harness.itgt = [&](const std::string& message) {
        if (commandOf(message) == 7020) {
            const std::string& response = parts[platform.requests.size()];
            requirePageFile(message, response, readResponseAtOnce(response, announced));
            ++pages;
        }
        return goodItgt(message);
    };
    harness.downloadThreePages();
    harness.end();
    // Pages and reports take turns: more of the former were asked for than ITGT was told of when the last one failed.
    const std::size_t connections = platform.requests.size();
    if (connections % 2 == 1 && pages == connections / 2) {
        const std::string& response = parts[connections];
        require(!isPage(readResponseAtOnce(response, announced)), "ITGT is told of a whole page", response);
    }
    return 0;
}
