#include "ql_process.h"

#include <dlfcn.h>
#include <errno.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "platform/child_process.h"

namespace {

/** Everything a user switch changes. */
struct Identity
{
    uid_t realUser = 0, effectiveUser = 0, savedUser = 0;
    gid_t realGroup = 0, effectiveGroup = 0, savedGroup = 0;
    std::vector<gid_t> groups;

    static Identity ofThisProcess()
    {
        Identity identity;
        EXPECT_EQ(getresuid(&identity.realUser, &identity.effectiveUser, &identity.savedUser), 0);
        EXPECT_EQ(getresgid(&identity.realGroup, &identity.effectiveGroup, &identity.savedGroup), 0);
        identity.groups.resize(static_cast<std::size_t>(getgroups(0, nullptr)));
        EXPECT_GE(getgroups(static_cast<int>(identity.groups.size()), identity.groups.data()), 0);
        std::sort(identity.groups.begin(), identity.groups.end());
        return identity;
    }

    static Identity ofAccount(const passwd& account)
    {
        Identity identity;
        identity.realUser = identity.effectiveUser = identity.savedUser = account.pw_uid;
        identity.realGroup = identity.effectiveGroup = identity.savedGroup = account.pw_gid;
        int count = 100;
        identity.groups.resize(static_cast<std::size_t>(count));
        EXPECT_GE(getgrouplist(account.pw_name, account.pw_gid, identity.groups.data(), &count), 0);
        identity.groups.resize(static_cast<std::size_t>(count));
        std::sort(identity.groups.begin(), identity.groups.end());
        return identity;
    }

    bool operator==(const Identity& other) const
    {
        return realUser == other.realUser && effectiveUser == other.effectiveUser && savedUser == other.savedUser &&
               realGroup == other.realGroup && effectiveGroup == other.effectiveGroup &&
               savedGroup == other.savedGroup && groups == other.groups;
    }
};

std::ostream& operator<<(std::ostream& out, const Identity& identity)
{
    out << "users " << identity.realUser << ' ' << identity.effectiveUser << ' ' << identity.savedUser << " groups "
        << identity.realGroup << ' ' << identity.effectiveGroup << ' ' << identity.savedGroup << " and";
    for (const gid_t group : identity.groups) {
        out << ' ' << group;
    }
    return out;
}

/** Whether the kernel lets this process become that account, tried in a child without the function under test. */
bool maySwitchTo(const passwd& account)
{
    const int code = inFork([&account] {
        const bool done = setgroups(0, nullptr) == 0 && setgid(account.pw_gid) == 0 && setuid(account.pw_uid) == 0;
        _exit(done ? 0 : 1);
    });
    return code == 0;
}

std::atomic<bool> refuseUserSwitch{false};

}  // namespace

/** Takes the place of the C library's function for this program and its libraries, to let the last step fail. */
extern "C" int setresuid(uid_t real, uid_t effective, uid_t saved) noexcept
{
    if (refuseUserSwitch) {
        errno = EAGAIN;
        return -1;
    }
    using Function = int(uid_t, uid_t, uid_t);
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "setresuid"))(real, effective, saved);
}

namespace {

TEST(ChangeProcUser, RefusesAnUnknownAccountAndChangesNothing)
{
    const Identity before = Identity::ofThisProcess();
    EXPECT_NE(QL_ChangeProcUser("camgate-no-such-account"), 0);
    EXPECT_NE(QL_ChangeProcUser(""), 0);
    EXPECT_NE(QL_ChangeProcUser(nullptr), 0);
    EXPECT_EQ(Identity::ofThisProcess(), before);
}

/** A user id without an account has no name to ask for; then nothing may succeed. */
TEST(ChangeProcUser, CountsBeingTheAccountAlreadyAsSuccess)
{
    const passwd* const account = getpwuid(getuid());
    const std::string name = account == nullptr ? "root" : account->pw_name;
    const Identity before = Identity::ofThisProcess();
    EXPECT_EQ(QL_ChangeProcUser(name.c_str()) == 0, account != nullptr);
    EXPECT_EQ(Identity::ofThisProcess(), before);
}

/** Where the kernel does not let the process switch at all, the failure and what it leaves behind are what counts. */
TEST(ChangeProcUser, SwitchesUserGroupAndGroupsForGoodWhereTheProcessMay)
{
    const passwd* const found = getpwnam("nobody");
    ASSERT_NE(found, nullptr);
    const passwd account = *found;
    const bool may = maySwitchTo(account);
    const bool already = account.pw_uid == getuid();
    const int code = inFork([&account, may, already] {
        const Identity before = Identity::ofThisProcess();
        const int result = QL_ChangeProcUser("nobody");
        EXPECT_EQ(result == 0, may || already) << result;
        EXPECT_EQ(Identity::ofThisProcess(), may ? Identity::ofAccount(account) : before);
        if (may) {
            EXPECT_EQ(setuid(0), -1);
            EXPECT_EQ(QL_ChangeProcUser("root"), EPERM);
            EXPECT_EQ(QL_ChangeProcUser("nobody"), 0);
            EXPECT_EQ(Identity::ofThisProcess(), Identity::ofAccount(account));
        }
    });
    EXPECT_EQ(code, 0);
}

TEST(ChangeProcUser, SwitchesThreadsThatRunAlready)
{
    const passwd* const found = getpwnam("nobody");
    ASSERT_NE(found, nullptr);
    const passwd account = *found;
    const uid_t expected = maySwitchTo(account) ? account.pw_uid : getuid();
    const int code = inFork([expected] {
        std::atomic<bool> switched{false};
        std::atomic<long> userOfThread{-1};
        std::atomic<bool> started{false};
        std::thread thread([&] {
            started = true;
            while (!switched) {
                std::this_thread::yield();
            }
            userOfThread = syscall(SYS_geteuid);
        });
        while (!started) {
            std::this_thread::yield();
        }
        QL_ChangeProcUser("nobody");
        switched = true;
        thread.join();
        EXPECT_EQ(userOfThread, static_cast<long>(expected));
    });
    EXPECT_EQ(code, 0);
}

TEST(ChangeProcUser, TakesTheGroupsBackWhenTheUserCannotBeSwitched)
{
    const passwd* const found = getpwnam("nobody");
    ASSERT_NE(found, nullptr);
    const passwd account = *found;
    const bool may = maySwitchTo(account) && account.pw_uid != getuid();
    const int code = inFork([may] {
        const Identity before = Identity::ofThisProcess();
        refuseUserSwitch = true;
        const int result = QL_ChangeProcUser("nobody");
        if (may) {
            EXPECT_EQ(result, EAGAIN);
        }
        EXPECT_EQ(Identity::ofThisProcess(), before);
    });
    EXPECT_EQ(code, 0);
}

}  // namespace
