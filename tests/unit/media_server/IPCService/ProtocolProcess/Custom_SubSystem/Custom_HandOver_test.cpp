#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_HandOver.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "support/system_calls.h"
#include "support/unix_socket.h"

namespace {

using IPCService::MetaDataGW::handOverTo;
namespace fs = std::filesystem;

const fs::path FOLDER = "/tmp/mmcblk0/face_basic/faceLib";
constexpr char ACCOUNT[] = "nobody";

uid_t ownerOf(const fs::path& path)
{
    struct stat status = {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_uid;
}

/** Page files of a run as whoever runs this test. */
class HandOverTest : public testing::Test
{
protected:
    HandOverTest()
    {
        fs::create_directories(FOLDER);
        std::ofstream("/tmp/probe") << "probe";
        const passwd* account = ::getpwnam(ACCOUNT);
        EXPECT_NE(account, nullptr);
        // Nothing can be handed over by those who may not give files away.
        m_mayHandOver = ::geteuid() == 0 && ::chown("/tmp/probe", account->pw_uid, account->pw_gid) == 0;
        m_account = m_mayHandOver ? account->pw_uid : ::geteuid();
        make("white0");
    }

    static fs::path make(const std::string& name)
    {
        std::ofstream(FOLDER / name) << name;
        return FOLDER / name;
    }

    bool m_mayHandOver = false;
    uid_t m_account = 0;
};

TEST_F(HandOverTest, GivesFolderAndPageFilesToTheAccount)
{
    make("white30");
    handOverTo(ACCOUNT);
    EXPECT_EQ(ownerOf(FOLDER), m_account);
    EXPECT_EQ(ownerOf(FOLDER / "white0"), m_account);
    EXPECT_EQ(ownerOf(FOLDER / "white30"), m_account);
}

TEST_F(HandOverTest, RemovesTheSocketFilesThatAreMadeAnew)
{
    const UnixSocket commands("/tmp/HK");
    const UnixSocket exchanges("/tmp/CP");
    handOverTo(ACCOUNT);
    EXPECT_EQ(fs::exists("/tmp/HK"), ::geteuid() != 0);
    EXPECT_EQ(fs::exists("/tmp/CP"), ::geteuid() != 0);
}

TEST_F(HandOverTest, GivesNothingElseAway)
{
    const fs::path other = make("other");
    const fs::path similar = make("whit");
    const fs::path linked = make("white60");
    fs::create_hard_link(linked, "/tmp/second name");
    std::ofstream("/tmp/elsewhere") << "elsewhere";
    fs::create_symlink("/tmp/elsewhere", FOLDER / "white90");
    ASSERT_EQ(::mkfifo((FOLDER / "white120").c_str(), 0600), 0);
    handOverTo(ACCOUNT);
    EXPECT_EQ(ownerOf(other), ::geteuid());
    EXPECT_EQ(ownerOf(similar), ::geteuid());
    EXPECT_EQ(ownerOf(linked), ::geteuid());
    EXPECT_EQ(ownerOf("/tmp/elsewhere"), ::geteuid());
    EXPECT_EQ(ownerOf(FOLDER / "white120"), ::geteuid());
}

TEST_F(HandOverTest, FolderBehindALinkIsNotGivenAway)
{
    fs::rename(FOLDER, "/tmp/other folder");
    fs::create_directory_symlink("/tmp/other folder", FOLDER);
    handOverTo(ACCOUNT);
    EXPECT_EQ(ownerOf("/tmp/other folder"), ::geteuid());
    EXPECT_EQ(ownerOf("/tmp/other folder/white0"), ::geteuid());
}

TEST_F(HandOverTest, PipeInPlaceOfTheFolderIsNotWaitedFor)
{
    fs::remove_all(FOLDER);
    ASSERT_EQ(::mkfifo(FOLDER.c_str(), 0600), 0);
    ::alarm(10);
    handOverTo(ACCOUNT);
    ::alarm(0);
    EXPECT_EQ(ownerOf(FOLDER), ::geteuid());
}

TEST_F(HandOverTest, LeavesTheGroupAsItIs)
{
    struct stat before = {};
    ASSERT_EQ(::stat(FOLDER.c_str(), &before), 0);
    handOverTo(ACCOUNT);
    struct stat after = {};
    ASSERT_EQ(::stat(FOLDER.c_str(), &after), 0);
    EXPECT_EQ(after.st_gid, before.st_gid);
}

TEST_F(HandOverTest, WithoutTheAccountNothingChanges)
{
    const UnixSocket commands("/tmp/HK");
    handOverTo("no such account");
    EXPECT_EQ(ownerOf(FOLDER / "white0"), ::geteuid());
    EXPECT_TRUE(fs::exists("/tmp/HK"));
}

TEST_F(HandOverTest, WithoutAFolderThereIsNothingToGive)
{
    fs::remove_all(FOLDER);
    handOverTo(ACCOUNT);
    EXPECT_FALSE(fs::exists(FOLDER));
}

TEST_F(HandOverTest, WhatCannotBeLookedAtIsNotGivenAway)
{
    systemCalls().fstatFails = true;
    handOverTo(ACCOUNT);
    systemCalls().fstatFails = false;
    EXPECT_EQ(ownerOf(FOLDER / "white0"), ::geteuid());
    systemCalls().fdopendirFails = true;
    const int next = ::dup(0);
    ::close(next);
    handOverTo(ACCOUNT);
    systemCalls().fdopendirFails = false;
    EXPECT_EQ(ownerOf(FOLDER / "white0"), ::geteuid());
    EXPECT_EQ(::dup(0), next) << "a descriptor stays open";
}

TEST_F(HandOverTest, WhoIsNotRootGivesNothingAwayAndKeepsTheSocketFiles)
{
    const UnixSocket commands("/tmp/HK");
    const uid_t before = ::geteuid();
    ASSERT_EQ(::seteuid(m_account), 0);
    handOverTo(ACCOUNT);
    ASSERT_EQ(::seteuid(before), 0);
    EXPECT_EQ(ownerOf(FOLDER / "white0"), before);
    EXPECT_TRUE(fs::exists("/tmp/HK"));
}

}  // namespace
