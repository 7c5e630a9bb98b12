#ifndef IPCSERVICE_WHOLEFILE_H
#define IPCSERVICE_WHOLEFILE_H

#include <string>

namespace IPCService {

/// How the reading of a whole file ended.
enum class WholeFileResult { Read, OpenFailed, SizeFailed, AllocationFailed, ReadFailed };

/// Reads a file in one read and keeps its text up to the first NUL.
///
/// @param path  the file; a pipe or device that has no size reads as empty and is never waited for
/// @param text  set to the file's text when the result is Read, else left as it is
/// @return what failed; ReadFailed also for a file of 4 GiB or more, or one that shrank meanwhile
WholeFileResult readWholeFile(const std::string& path, std::string& text);

}  // namespace IPCService

#endif
