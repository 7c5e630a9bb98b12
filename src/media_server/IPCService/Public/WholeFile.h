#ifndef IPCSERVICE_WHOLEFILE_H
#define IPCSERVICE_WHOLEFILE_H

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

namespace IPCService {

/// How the reading of a whole file ended.
enum class WholeFileResult { Read, OpenFailed, SizeFailed, AllocationFailed, ReadFailed };

/// Reads a file in one read and keeps its text up to the first NUL.
///
/// @param path  the file; a pipe or device that has no size reads as empty and is never waited for
/// @param text  set to the file's text when the result is Read, else left as it is
/// @param longest  bytes that the caller has a use for; of a longer file one more is read, to show that it is
/// @return what failed; ReadFailed also for a file of 4 GiB or more, or one that shrank meanwhile
WholeFileResult readWholeFile(const std::string& path, std::string& text,
                              std::size_t longest = std::numeric_limits<std::uint32_t>::max());

}  // namespace IPCService

#endif
