#ifndef IPCSERVICE_SERVICELOG_H
#define IPCSERVICE_SERVICELOG_H

#include "ql_log.h"

namespace IPCService {

/// The levels that this service logs at.
enum class LogLevel : int { Debug = 0, Information = 1, Error = 3 };

/// This service's number in the camera's log.
constexpr int LOG_MODULE = 4;

}  // namespace IPCService

/// Writes one log record with a given source line. Support staff find some records by line number, so those lines
/// are fixed whatever the code around them does.
/// The file that logs defines `constexpr char LOG_SOURCE[]`: its path below the source root without extension.
#define LOG_AT(level, line, ...)                                                                               \
    QL_WriteLog(IPCService::LOG_MODULE, static_cast<int>(IPCService::LogLevel::level), 0, 0, LOG_SOURCE, line, \
                __VA_ARGS__)

/// Writes one log record with the line it stands in.
#define LOG(level, ...) LOG_AT(level, __LINE__, __VA_ARGS__)

#endif
