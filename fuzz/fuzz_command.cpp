/// Command head and body. Each part of an input is one datagram on the command socket.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "input.h"
#include "oracle.h"
#include "played_platform.h"
#include "surroundings.h"

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
    Surroundings& surroundings = Surroundings::instance();
    surroundings.begin();
    PlayedPlatform::instance().responses.assign(6, GOOD_PAGE_RESPONSE);
    std::size_t taken = 0;
    surroundings.giveInput = [&] {
        if (taken % DATAGRAMS_PER_DOWNLOAD == 0) {
            surroundings.runDownloads();
        }
        if (taken == datagrams.size()) {
            return false;
        }
        surroundings.sendCommand(datagrams[taken++]);
        return true;
    };
    surroundings.commandLoop().runTask();
    surroundings.resume();
    surroundings.runDownloads();
    require(surroundings.takeReplies() == tagsOf(datagrams), "each command has one reply, with its tag");
    surroundings.end();
    return 0;
}
