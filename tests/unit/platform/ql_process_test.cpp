#include "ql_process.h"

#include <dlfcn.h>
#include <errno.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <set>
#include <string>
#include <utility>

#include "support/child.h"

namespace {

/** Everything a user switch changes: real, effective and saved user, the same of the group, and all groups. */
using Identity = std::pair<std::array<id_t, 6>, std::set<gid_t>>;

Identity ofThisProcess()
{
    Identity identity;
    auto& [user, effectiveUser, savedUser, group, effectiveGroup, savedGroup] = identity.first;
    EXPECT_EQ(getresuid(&user, &effectiveUser, &savedUser), 0);
    EXPECT_EQ(getresgid(&group, &effectiveGroup, &savedGroup), 0);
    std::array<gid_t, 100> groups{};
    const int count = getgroups(groups.size(), groups.data());
    EXPECT_GE(count, 0);
    identity.second.insert(groups.begin(), groups.begin() + std::max(count, 0));
    return identity;
}

Identity ofAccount(const passwd& account)
{
    const uid_t user = account.pw_uid;
    const gid_t group = account.pw_gid;
    std::array<gid_t, 100> groups{};
    int count = groups.size();
    EXPECT_GE(getgrouplist(account.pw_name, group, groups.data(), &count), 0);
    return {{user, user, user, group, group, group}, {groups.begin(), groups.begin() + count}};
}

passwd accountOfNobody()
{
    const passwd* const found = getpwnam("nobody");
    EXPECT_NE(found, nullptr);
    return found != nullptr ? *found : passwd();
}

/** Whether the kernel lets this process become that account, tried in a child without the function under test. */
bool maySwitchTo(const passwd& account)
{
    const int code = inChild([&account] {
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
    const Identity before = ofThisProcess();
    EXPECT_NE(QL_ChangeProcUser("camgate-no-such-account"), 0);
    EXPECT_NE(QL_ChangeProcUser(""), 0);
    EXPECT_NE(QL_ChangeProcUser(nullptr), 0);
    EXPECT_EQ(ofThisProcess(), before);
}

/** A user id without an account has no name to ask for; then nothing may succeed. */
TEST(ChangeProcUser, CountsBeingTheAccountAlreadyAsSuccess)
{
    const passwd* const account = getpwuid(getuid());
    const std::string name = account == nullptr ? "root" : account->pw_name;
    const Identity before = ofThisProcess();
    EXPECT_EQ(QL_ChangeProcUser(name.c_str()) == 0, account != nullptr);
    EXPECT_EQ(ofThisProcess(), before);
}

/** Where the kernel does not let the process switch at all, the failure and what it leaves behind are what counts. */
TEST(ChangeProcUser, SwitchesUserGroupAndGroupsForGoodWhereTheProcessMay)
{
    const passwd account = accountOfNobody();
    const bool may = maySwitchTo(account);
    const bool already = account.pw_uid == getuid();
    const int code = inChild([&account, may, already] {
        const Identity before = ofThisProcess();
        const int result = QL_ChangeProcUser("nobody");
        EXPECT_EQ(result == 0, may || already) << result;
        EXPECT_EQ(ofThisProcess(), may ? ofAccount(account) : before);
        if (may) {
            EXPECT_EQ(setuid(0), -1);
            EXPECT_EQ(QL_ChangeProcUser("root"), EPERM);
            EXPECT_EQ(QL_ChangeProcUser("nobody"), 0);
            EXPECT_EQ(ofThisProcess(), ofAccount(account));
        }
    });
    EXPECT_EQ(code, 0);
}

TEST(ChangeProcUser, TakesTheGroupsBackWhenTheUserCannotBeSwitched)
{
    const passwd account = accountOfNobody();
    const bool may = maySwitchTo(account) && account.pw_uid != getuid();
    const int code = inChild([may] {
        const Identity before = ofThisProcess();
        refuseUserSwitch = true;
        const int result = QL_ChangeProcUser("nobody");
        if (may) {
            EXPECT_EQ(result, EAGAIN);
        }
        EXPECT_EQ(ofThisProcess(), before);
    });
    EXPECT_EQ(code, 0);
}

}  // namespace
