/*
 * Stand-in for the camera's process library: switches the user for real, where the process may. Ring buffers (see
 * srvfs_client.cpp) that an earlier process left as root's go to the new user with it: it could not open them else.
 */
#include "ql_process.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <exception>
#include <vector>

namespace {

struct Account
{
    uid_t uid;
    gid_t gid;
};

/** @return 0, or the errno value of what went wrong; ENOENT for an unknown name */
int findAccount(const char* user, Account& account)
{
    std::vector<char> buffer(1024);
    passwd entry{};
    passwd* found = nullptr;
    int result = getpwnam_r(user, &entry, buffer.data(), buffer.size(), &found);
    while (result == ERANGE) {
        buffer.resize(buffer.size() * 2);
        result = getpwnam_r(user, &entry, buffer.data(), buffer.size(), &found);
    }
    if (result != 0) {
        return result;
    }
    if (found == nullptr) {
        return ENOENT;
    }
    account = {entry.pw_uid, entry.pw_gid};
    return 0;
}

bool runsAs(uid_t uid)
{
    uid_t real = 0;
    uid_t effective = 0;
    uid_t saved = 0;
    return getresuid(&real, &effective, &saved) == 0 && real == uid && effective == uid && saved == uid;
}

/** The groups of the process, so that a switch that fails half-way can be taken back. */
class Groups
{
public:
    /** @return 0 or an errno value */
    int remember()
    {
        if (getresgid(&m_real, &m_effective, &m_saved) != 0) {
            return errno;
        }
        const int count = getgroups(0, nullptr);
        if (count < 0) {
            return errno;
        }
        m_supplementary.resize(static_cast<std::size_t>(count));
        return getgroups(count, m_supplementary.data()) < 0 ? errno : 0;
    }

    bool restore() const
    {
        const bool gidsRestored = setresgid(m_real, m_effective, m_saved) == 0;
        return setgroups(m_supplementary.size(), m_supplementary.data()) == 0 && gidsRestored;
    }

private:
    gid_t m_real = 0;
    gid_t m_effective = 0;
    gid_t m_saved = 0;
    std::vector<gid_t> m_supplementary;
};

constexpr char SHARED_MEMORY_FOLDER[] = "/dev/shm";
constexpr char RING_PREFIX[] = "metadata_servfile";

/** Failures do not matter: a ring that stays root's cannot be opened, which is reported then. */
void handOverRings(const Account& account)
{
    DIR* const folder = opendir(SHARED_MEMORY_FOLDER);
    if (folder == nullptr) {
        return;
    }
    while (const dirent* const entry = readdir(folder)) {
        if (std::strncmp(entry->d_name, RING_PREFIX, sizeof RING_PREFIX - 1) != 0) {
            continue;
        }
        const int descriptor = openat(dirfd(folder), entry->d_name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        struct stat status = {};
        if (descriptor >= 0 && fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == 0 &&
            status.st_nlink == 1) {
            [[maybe_unused]] const int result = fchown(descriptor, account.uid, account.gid);
        }
        close(descriptor);
    }
    closedir(folder);
}

/**
 * The groups first, while the process still may, the user last: from then on there is no way back.
 * The C library carries each step to all threads.
 *
 * @return 0 or an errno value
 */
int switchTo(const char* user, const Account& account)
{
    Groups before;
    const int result = before.remember();
    if (result != 0) {
        return result;
    }
    handOverRings(account);
    if (initgroups(user, account.gid) != 0) {
        return errno;
    }
    if (setresgid(account.gid, account.gid, account.gid) != 0 ||
        setresuid(account.uid, account.uid, account.uid) != 0) {
        const int cause = errno;
        return before.restore() ? cause : EPERM;
    }
    return 0;
}

}  // namespace

/** The result of a failure is an errno value. Being the account already (all three user ids) is a success. */
int QL_ChangeProcUser(const char* user)
{
    if (user == nullptr || *user == '\0') {
        return EINVAL;
    }
    try {
        Account account{};
        const int result = findAccount(user, account);
        if (result != 0) {
            return result;
        }
        return runsAs(account.uid) ? 0 : switchTo(user, account);
    } catch (const std::exception&) {
        return ENOMEM;
    }
}
