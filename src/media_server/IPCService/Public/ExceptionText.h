#ifndef IPCSERVICE_EXCEPTIONTEXT_H
#define IPCSERVICE_EXCEPTIONTEXT_H

#include <exception>
#include <string>

namespace IPCService {

/// What an exception says: the display text of the framework's own, what() of any other. Throws nothing itself, so
/// that handlers can use it when memory is short.
std::string exceptionText(const std::exception& exc) noexcept;

}  // namespace IPCService

#endif
