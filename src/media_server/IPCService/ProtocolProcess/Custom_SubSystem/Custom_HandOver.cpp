#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_HandOver.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_FaceLibrary.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonMsgLoop.h"
#include "media_server/IPCService/Public/ExchangeSocket.h"

namespace IPCService {
namespace MetaDataGW {

namespace {

constexpr uid_t ROOT = 0;
constexpr gid_t SAME_GROUP = static_cast<gid_t>(-1);
constexpr std::size_t ACCOUNT_TEXT_SIZE = 16 << 10;  // bytes; an entry of the accounts takes some hundred

struct CloseDirectory
{
    void operator()(DIR* directory) const { ::closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

/// Hands over what root owns. A file that has a second name stays root's: that name may be anywhere.
void handOver(int descriptor, const passwd& account)
{
    struct stat status = {};
    if (::fstat(descriptor, &status) == 0 && status.st_uid == ROOT &&
        (S_ISDIR(status.st_mode) || (S_ISREG(status.st_mode) && status.st_nlink == 1))) {
        [[maybe_unused]] const int result = ::fchown(descriptor, account.pw_uid, SAME_GROUP);
    }
}

/// The folder of page files; null when there is none, or a link in its place. With the slash at its end the path would
/// lead through a link all the same.
Directory openFolder()
{
    std::string path = FACE_LIBRARY_DIRECTORY;
    path.pop_back();
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (descriptor < 0) {
        return nullptr;
    }
    Directory directory(::fdopendir(descriptor));
    if (!directory) {
        ::close(descriptor);
    }
    return directory;
}

/// Links are not followed, and nothing is waited for, whatever lies there under a page file's name.
void handOverPageFiles(const passwd& account)
{
    const Directory directory = openFolder();
    if (!directory) {
        return;
    }
    handOver(::dirfd(directory.get()), account);
    while (const dirent* entry = ::readdir(directory.get())) {  // NOLINT(concurrency-mt-unsafe): one thread only
        if (std::strncmp(entry->d_name, PAGE_FILE_PREFIX, sizeof(PAGE_FILE_PREFIX) - 1) != 0) {
            continue;
        }
        const int descriptor =
            ::openat(::dirfd(directory.get()), entry->d_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        if (descriptor >= 0) {
            handOver(descriptor, account);
            ::close(descriptor);
        }
    }
}

}  // namespace

void handOverTo(const char* user)
{
    char text[ACCOUNT_TEXT_SIZE];
    passwd entry = {};
    passwd* pAccount = nullptr;
    if (::geteuid() != ROOT || ::getpwnam_r(user, &entry, text, sizeof(text), &pAccount) != 0 || pAccount == nullptr) {
        return;
    }
    // Both are made anew when they are needed.
    ::unlink(COMMAND_PATH);
    ::unlink(EXCHANGE_PATH);
    handOverPageFiles(*pAccount);
}

}  // namespace MetaDataGW
}  // namespace IPCService
