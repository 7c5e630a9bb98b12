#ifndef IPCSERVICE_EXCEPTIONTEXT_H
#define IPCSERVICE_EXCEPTIONTEXT_H

#include <exception>
#include <string>

namespace IPCService {

/// What an exception says: the display text of the framework's own, what() of any other.
std::string exceptionText(const std::exception& exc);

}  // namespace IPCService

#endif
