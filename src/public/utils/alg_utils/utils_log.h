#ifndef ALG_UTILS_UTILS_LOG_H
#define ALG_UTILS_UTILS_LOG_H

#include <cstdint>

#include "ql_log.h"

/// Debug switch of the utility modules, passed to every log call. Nothing in this service assigns it.
enum ITGT_DEBUG_FLAG : std::int32_t { ITGT_DEBUG_OFF = 0 };
extern ITGT_DEBUG_FLAG g_enITGTDebugFlag;

/// What every record of the utility modules begins with.
#define UTILS_LOG_TAG "LogCommon"

/// Results of the utility modules.
constexpr int IPC_SUCCESS = 0;
constexpr int IPC_FAILURE = -1;          ///< something local failed
constexpr int IPC_EXCHANGE_FAILED = -2;  ///< a bad argument, or the exchange with the device failed

constexpr int UTILS_LOG_DEBUG = 0;
constexpr int UTILS_LOG_INFORMATION = 1;
constexpr int UTILS_LOG_ERROR = 3;

/// Writes one log record of a utility module. The format begins with "[%s]:" and the first argument is UTILS_LOG_TAG.
/// The file that logs defines `constexpr char LOG_SOURCE[]`: its path below the source root without extension.
#define UTILS_LOG(level, ...) QL_WriteLog(4, level, g_enITGTDebugFlag, 0, LOG_SOURCE, __LINE__, __VA_ARGS__)

#endif
