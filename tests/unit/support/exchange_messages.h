#ifndef TESTS_UNIT_SUPPORT_EXCHANGE_MESSAGES_H
#define TESTS_UNIT_SUPPORT_EXCHANGE_MESSAGES_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "support/raw_bytes.h"

// The messages between the camera's processes, byte by byte.

/** Bytes of each of them. */
constexpr std::size_t MESSAGE_BYTES = 21408;

/** The command of a message; 0 when it is too short for one. */
inline std::uint32_t commandOf(const std::string& message)
{
    return message.size() < 168 ? 0 : numberAt<std::uint32_t>(message, 164);
}

/** A message of zeros but for its command. */
inline std::string messageOf(std::uint32_t command)
{
    std::string message(MESSAGE_BYTES, '\0');
    putNumber<std::uint32_t>(message, 164, command);
    return message;
}

/** A request as it must be on the wire when it carries nothing but its header. */
inline std::string requestOf(const std::string& receiver, std::uint32_t subType, std::uint32_t command)
{
    std::string message = messageOf(command);
    putText(message, 0, receiver);
    putText(message, 8, "/tmp/CP");
    putNumber<std::uint32_t>(message, 160, subType);
    putNumber<std::int64_t>(message, 200, 101);
    return message;
}

/** Where two messages differ, which are too long to print; nothing when they do not. */
inline std::string difference(const std::string& expected, const std::string& found)
{
    if (expected.size() != found.size()) {
        return std::to_string(found.size()) + " bytes instead of " + std::to_string(expected.size());
    }
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (expected[i] != found[i]) {
            return "offset " + std::to_string(i) + " has " + std::to_string(static_cast<unsigned char>(found[i])) +
                   " instead of " + std::to_string(static_cast<unsigned char>(expected[i]));
        }
    }
    return "";
}

#endif
