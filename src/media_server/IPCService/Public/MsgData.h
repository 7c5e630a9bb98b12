#ifndef IPCSERVICE_MSGDATA_H
#define IPCSERVICE_MSGDATA_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "bounds_checked.h"

/// The commands of the messages between the camera's processes. Any 32-bit value can arrive.
enum QL_CMD_TYPE : std::uint32_t {
    CMD_CUSTOM_PROTOCOL_READY = 1037,  ///< this service is up; no reply
    CMD_ALARM_FACE_LIB_SET = 7018,     ///< set one face list
    CMD_FACE_LIB_CLEAR = 7019,         ///< clear the face libraries
    CMD_FACE_IMPORT_FILE = 7020,       ///< a page file was written
    CMD_FACE_IMPORT_PROGRESS = 7021,   ///< how far is the import of a page
    CMD_FACE_IMPORT_PAGE = 7031,       ///< the time to report a page's result with
};

/// The message that the camera's processes exchange over unix datagram sockets. Little-endian, as the camera.
/// A sender starts from zero: `MSG_DATA message{};`.
struct MSG_DATA
{
    char destPath[8];  ///< socket path of the receiver, at most 7 characters and NULs
    char srcPath[8];   ///< socket path of the sender, likewise
    std::uint8_t unused1[144];
    std::uint32_t subType;
    QL_CMD_TYPE command;
    std::uint8_t unused2[32];
    std::int64_t module;  ///< 101 in every command of the 7000 range
    std::uint8_t payload[21200];
};

static_assert(sizeof(MSG_DATA) == 21408, "MSG_DATA has 21408 bytes on the wire");
static_assert(offsetof(MSG_DATA, srcPath) == 8, "wire offset");
static_assert(offsetof(MSG_DATA, subType) == 160, "wire offset");
static_assert(offsetof(MSG_DATA, command) == 164, "wire offset");
static_assert(offsetof(MSG_DATA, module) == 200, "wire offset");
static_assert(offsetof(MSG_DATA, payload) == 208, "wire offset");

namespace IPCService {

using ::MSG_DATA;
using ::QL_CMD_TYPE;

/// A number at a fixed offset of a message.
template <typename Value, std::size_t Offset>
struct MsgNumber
{
    static constexpr std::size_t OFFSET = Offset;
    static constexpr std::size_t WIDTH = sizeof(Value);
    static_assert(Offset + sizeof(Value) <= sizeof(MSG_DATA), "the field lies inside the message");

    static Value get(const MSG_DATA& message)
    {
        Value value;
        std::memcpy(&value, reinterpret_cast<const char*>(&message) + Offset, sizeof(value));
        return value;
    }

    static void set(MSG_DATA& message, Value value)
    {
        memcpy_s(reinterpret_cast<char*>(&message) + Offset, sizeof(message) - Offset, &value, sizeof(value));
    }
};

/// NUL-terminated text in a field of Width bytes at a fixed offset of a message.
template <std::size_t Offset, std::size_t Width = sizeof(MSG_DATA) - Offset>
struct MsgText
{
    static constexpr std::size_t OFFSET = Offset;
    static constexpr std::size_t WIDTH = Width;
    static_assert(Offset + Width <= sizeof(MSG_DATA), "the field lies inside the message");

    /// The text up to its NUL or to the end of the field, whichever comes first.
    static std::string get(const MSG_DATA& message)
    {
        const char* text = reinterpret_cast<const char*>(&message) + Offset;
        return std::string(text, ::strnlen(text, Width));
    }

    /// Rewrites the whole field: the text up to its first NUL, and NULs. Text that does not fit leaves it empty.
    static void set(MSG_DATA& message, const std::string& text)
    {
        char* field = reinterpret_cast<char*>(&message) + Offset;
        memset_s(field, Width, 0, Width);
        if (text.size() < Width) {
            memcpy_s(field, Width, text.data(), ::strnlen(text.data(), text.size()));
        }
    }
};

/// Where the commands keep their fields, by command. Requests and replies use the same bytes differently.
namespace MsgField {

using Count = MsgNumber<std::uint32_t, 208>;  ///< 3 in 7018 and 7020 requests

// 7018 request
using ListId = MsgNumber<std::uint64_t, 216>;
using ListType = MsgNumber<std::int32_t, 224>;
using ListOnControl = MsgNumber<std::int32_t, 228>;
using ListThreshold = MsgNumber<std::int64_t, 232>;
using ListName = MsgText<240, 65>;

// 7019 reply
using ClearStatus = MsgNumber<std::uint32_t, 176>;  ///< 0: accepted
using ClearConfigPath = MsgText<216>;

// 7020 request and reply
using ImportFileFlag = MsgNumber<std::uint32_t, 312>;
using ImportFileDirectory = MsgText<316, 132>;
using ImportFileName = MsgText<448, 132>;
using ImportFileTaskId = MsgNumber<std::int64_t, 584>;

// 7021 request and reply
using ProgressTaskId = MsgNumber<std::int64_t, 304>;
using ProgressStatus = MsgNumber<std::uint32_t, 312>;  ///< 1: imported
using ProgressTotal = MsgNumber<std::int64_t, 320>;
using ProgressCurrent = MsgNumber<std::int64_t, 328>;
using ProgressStatePath = MsgText<336>;

// 7031 reply
using PageTime = MsgText<304>;

}  // namespace MsgField

/// Socket paths of the peers.
constexpr char ITGT_PATH[] = "/tmp/II";
constexpr char FACE_LIBRARY_PATH[] = "/tmp/A";

/// Value of the module word in every command of the 7000 range.
constexpr std::int64_t MSG_MODULE_FACE = 101;

/// Fills the header of a message and leaves the rest as it is.
/// @param destPath, srcPath  socket paths of at most 7 characters
inline void setMsgHeader(MSG_DATA& message, const char* destPath, const char* srcPath, std::uint32_t subType,
                         QL_CMD_TYPE command)
{
    // The count stays within the text: some releases of the library take a larger one for an overrun of the source.
    strncpy_s(message.destPath, sizeof(message.destPath), destPath, strnlen(destPath, sizeof(message.destPath) - 1));
    strncpy_s(message.srcPath, sizeof(message.srcPath), srcPath, strnlen(srcPath, sizeof(message.srcPath) - 1));
    message.subType = subType;
    message.command = command;
}

/// Like setMsgHeader, with the module word of the 7000 range.
inline void setFaceMsgHeader(MSG_DATA& message, const char* destPath, const char* srcPath, std::uint32_t subType,
                             QL_CMD_TYPE command)
{
    setMsgHeader(message, destPath, srcPath, subType, command);
    message.module = MSG_MODULE_FACE;
}

}  // namespace IPCService

#endif
