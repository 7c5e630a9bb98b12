/// Command head and body. Each part of an input is one datagram on the command socket.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "harness.h"
#include "in_process_platform.h"
#include "input.h"
#include "oracle.h"

namespace {

constexpr std::size_t HEAD_SIZE = 280;
/// A started download is run when so many datagrams have been taken: every second command finds it running.
constexpr std::size_t DATAGRAMS_PER_DOWNLOAD = 4;

std::uint32_t fieldOf(const std::string& datagram, std::size_t offset)
{
    std::string head = datagram;
    head.resize(HEAD_SIZE);
    std::uint32_t value = 0;
    std::memcpy(&value, head.data() + offset, sizeof(value));
    return value;
}

/// The tags of the commands that the datagrams are: one for each reply. A head that is the last has no body yet.
std::vector<std::uint32_t> tagsOf(const std::vector<std::string>& datagrams)
{
    std::vector<std::uint32_t> tags;
    for (std::size_t i = 0; i + 1 < datagrams.size(); ++i) {
        tags.push_back(fieldOf(datagrams[i], 240));
        const std::string& next = datagrams[i + 1];
        const bool isHead =
            next.size() == HEAD_SIZE && next.compare(0, 5, "/tmp/") == 0 && fieldOf(datagrams[i], 256) != HEAD_SIZE;
        i += isHead ? 0 : 1;
    }
    return tags;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::vector<std::string> datagrams = partsOf(data, size);
    Harness& harness = Harness::instance();
    harness.begin();
    InProcessPlatform::instance().serve(6, goodPlatform());
    std::size_t taken = 0;
    harness.giveInput = [&] {
        if (taken % DATAGRAMS_PER_DOWNLOAD == 0) {
            harness.runDownloads();
        }
        if (taken == datagrams.size()) {
            return false;
        }
        harness.sendCommand(datagrams[taken++]);
        return true;
    };
    harness.commandLoop().runTask();
    harness.resume();
    harness.runDownloads();
    require(harness.takeReplies() == tagsOf(datagrams), "each command has one reply, with its tag");
    harness.end();
    return 0;
}
