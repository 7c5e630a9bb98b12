#include "media_server/IPCService/Public/WholeFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

namespace IPCService {

namespace {

struct CloseFile
{
    void operator()(std::FILE* file) const { (void)std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

/// Opens "rb", but never waits for the writer of a pipe.
File openForReading(const std::string& path)
{
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) {
        return nullptr;
    }
    File file(::fdopen(descriptor, "rb"));
    if (!file) {
        ::close(descriptor);
    }
    return file;
}

WholeFileResult readText(std::FILE* file, std::size_t size, std::string& text)
{
    if (size == std::numeric_limits<std::size_t>::max()) {
        return WholeFileResult::AllocationFailed;  // no room for the end of the text on a 32-bit machine
    }
    const std::unique_ptr<char[]> buffer(new (std::nothrow) char[size + 1]);
    if (!buffer) {
        return WholeFileResult::AllocationFailed;
    }
    // One byte more than the file, so that the text ends even when the file has no NUL.
    buffer[size] = '\0';
    if (std::fread(buffer.get(), 1, size, file) != size) {
        return WholeFileResult::ReadFailed;
    }
    try {
        text.assign(buffer.get());
    } catch (const std::bad_alloc&) {
        return WholeFileResult::AllocationFailed;
    }
    return WholeFileResult::Read;
}

}  // namespace

WholeFileResult readWholeFile(const std::string& path, std::string& text, std::size_t longest)
{
    const File file = openForReading(path);
    if (!file) {
        return WholeFileResult::OpenFailed;
    }
    struct stat status = {};
    if (::fstat(::fileno(file.get()), &status) != 0) {
        return WholeFileResult::SizeFailed;
    }
    if (static_cast<std::uint64_t>(status.st_size) > std::numeric_limits<std::uint32_t>::max()) {
        return WholeFileResult::ReadFailed;
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    return readText(file.get(), size > longest ? longest + 1 : size, text);
}

}  // namespace IPCService
