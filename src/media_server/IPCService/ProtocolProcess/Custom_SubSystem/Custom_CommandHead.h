#ifndef CUSTOM_SUBSYSTEM_CUSTOM_COMMANDHEAD_H
#define CUSTOM_SUBSYSTEM_CUSTOM_COMMANDHEAD_H

#include <cstddef>
#include <cstdint>

namespace IPCService {
namespace MetaDataGW {

/// Head of a command or reply. Of a command only tag and bodyLength are read.
struct CommandHead
{
    char destPath[8];
    char srcPath[8];
    std::uint8_t reserved1[224];
    std::uint32_t tag;
    std::uint32_t reserved2;
    std::uint8_t reserved3[8];
    std::uint32_t bodyLength;  ///< bytes of the datagram that follows
    std::uint32_t reserved4;
    std::uint32_t reserved5;
    std::uint8_t reserved6[12];
};
static_assert(sizeof(CommandHead) == 280, "wire size");
static_assert(offsetof(CommandHead, srcPath) == 8, "wire offset");
static_assert(offsetof(CommandHead, tag) == 240, "wire offset");
static_assert(offsetof(CommandHead, reserved2) == 244, "wire offset");
static_assert(offsetof(CommandHead, bodyLength) == 256, "wire offset");
static_assert(offsetof(CommandHead, reserved4) == 260, "wire offset");
static_assert(offsetof(CommandHead, reserved5) == 264, "wire offset");

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
