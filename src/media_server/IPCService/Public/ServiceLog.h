#ifndef IPCSERVICE_SERVICELOG_H
#define IPCSERVICE_SERVICELOG_H

#include "ql_log.h"

namespace IPCService {

/// The levels that this service logs at.
enum class LogLevel : int { Debug = 0, Information = 1, Error = 3 };

/// This service's number in the camera's log.
constexpr int LOG_MODULE = 4;

/// Where the records of a file say that they come from. Each file that logs defines its own as LOG_SOURCE.
struct LogSource
{
    const char* path;  ///< below the source root, without extension

    /// Added to the line of each call. Files that share a path have a block of 1000 lines each, and fixed lines stand
    /// below the blocks: a line leads to one place. docs/log.md has the blocks.
    int linesBefore = 0;
};

}  // namespace IPCService

/// Writes one log record with a given source line. Support staff find some records by line number, so those lines
/// are fixed whatever the code around them does.
#define LOG_AT(level, line, ...)                                                                                    \
    QL_WriteLog(IPCService::LOG_MODULE, static_cast<int>(IPCService::LogLevel::level), 0, 0, LOG_SOURCE.path, line, \
                __VA_ARGS__)

/// Writes one log record with the line it stands in.
#define LOG(level, ...) LOG_AT(level, LOG_SOURCE.linesBefore + __LINE__, __VA_ARGS__)

#endif
