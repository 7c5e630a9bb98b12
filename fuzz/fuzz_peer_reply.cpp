/// Each peer's reply. The first part of an input is "d" for a download of three pages or "c" for a whiteListClear, the
/// others are the replies in their order. The first letter of a reply says what the rest is: r the datagram, e what
/// overwrites the request from its command on, f the datagram, whose last byte fills it up to the size of a message, l
/// the same and longer, s nothing (the peer is silent).
#include <Poco/JSON/Object.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "harness.h"
#include "in_process_platform.h"
#include "input.h"
#include "media_server/IPCService/Public/Interruption.h"
#include "oracle.h"
#include "support/exchange_messages.h"

namespace {

constexpr std::size_t COMMAND_OFFSET = 164;
constexpr std::size_t STATUS_OFFSET = 176;
constexpr std::size_t LONG_SIZE = 30000;

std::string filled(std::string text, std::size_t size)
{
    text.resize(size, text.empty() ? '\0' : text.back());
    return text;
}

std::optional<std::string> replyOf(const std::string& part, const std::string& message)
{
    const std::string rest = part.empty() ? "" : part.substr(1);
    std::string reply = message;
    switch (part.empty() ? 's' : part[0]) {
        case 's':
            return std::nullopt;
        case 'e':
            return reply.replace(COMMAND_OFFSET, rest.size(), rest);
        case 'f':
            return filled(rest, MESSAGE_BYTES);
        case 'l':
            return filled(rest, LONG_SIZE);
        default:
            return rest;
    }
}

/// What the service's buffer holds after a reply.
std::string received(const std::string& reply, std::string message)
{
    const std::string taken = reply.substr(0, MESSAGE_BYTES);
    return message.replace(0, taken.size(), taken);
}

/// @param first  what the service's buffer held after the first reply; empty: there was none
void clear(Harness& harness, const std::string& first)
{
    Poco::JSON::Object::Ptr pInfo = new Poco::JSON::Object;
    pInfo->set("cameraCode", "C1");
    std::uint32_t tag = 7;
    try {
        harness.commandLoop().WhiteListClearHandler(pInfo, tag);
    } catch (const IPCService::Interrupted&) {
        require(harness.isInterrupted(), "only a stop interrupts");
    }
    const bool accepted = !first.empty() && numberAt<std::uint32_t>(first, COMMAND_OFFSET) == 7019 &&
                          numberAt<std::uint32_t>(first, STATUS_OFFSET) == 0;
    const std::size_t replies = accepted && !harness.isInterrupted() ? 1 : 0;
    require(harness.takeReplies() == std::vector<std::uint32_t>(replies, tag),
            "an accepted command has one reply, a refused one none");
    // A reply may have led a request to the service's own command socket: it is taken as a command there.
    harness.commandLoop().runTask();
    harness.takeReplies();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::vector<std::string> parts = partsOf(data, size);
    Harness& harness = Harness::instance();
    harness.begin();
    std::size_t taken = 1;
    std::string first;
    const Harness::Answer answer = [&](const std::string& message) {
        auto reply = taken < parts.size() ? replyOf(parts[taken++], message) : std::nullopt;
        if (reply && taken == 2) {
            first = received(*reply, message);
        }
        return reply;
    };
    harness.itgt = answer;
    harness.faceLibrary = answer;
    if (parts[0] == "c") {
        clear(harness, first);
    } else {
        InProcessPlatform::instance().serve(6, goodPlatform());
        harness.downloadThreePages();
    }
    harness.end();
    return 0;
}
