#ifndef TESTS_UNIT_SUPPORT_ITGT_REPLIES_H
#define TESTS_UNIT_SUPPORT_ITGT_REPLIES_H

#include <cstdint>
#include <string>

#include "support/exchange_messages.h"

// What the camera's analysis process answers, byte by byte.

/** To 7031: the time. */
inline std::string timeReply(const std::string& time)
{
    std::string reply = messageOf(7031);
    putText(reply, 304, time);
    return reply;
}

/** To 7020: the import task's id. */
inline std::string importReply(std::int64_t taskId)
{
    std::string reply = messageOf(7020);
    putNumber<std::int64_t>(reply, 584, taskId);
    return reply;
}

/** To 7021: how far the import is. @param status  1: imported */
inline std::string progressReply(std::uint32_t status, const std::string& statePath, std::int64_t current = 30,
                                 std::int64_t total = 30)
{
    std::string reply = messageOf(7021);
    putNumber<std::uint32_t>(reply, 312, status);
    putNumber<std::int64_t>(reply, 320, total);
    putNumber<std::int64_t>(reply, 328, current);
    putText(reply, 336, statePath);
    return reply;
}

/** The answer of an analysis process that imports every page at once. */
inline std::string importAtOnce(const std::string& request)
{
    switch (commandOf(request)) {
        case 7020:
            return importReply(4711);
        case 7021:
            return progressReply(1, "/tmp/state.json");
        case 7031:
            return timeReply("2024-05-06 07:08:09");
        default:
            return "";
    }
}

#endif
