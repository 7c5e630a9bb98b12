#include "media_server/IPCService/Public/WholeFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <string>

#include "support/child.h"
#include "support/raw_bytes.h"
#include "support/system_calls.h"
#include "support/temp_folder.h"

namespace {

using IPCService::readWholeFile;
using IPCService::WholeFileResult;

class WholeFile : public testing::Test
{
protected:
    WholeFileResult read(const std::string& path) { return readWholeFile(path, text); }

    TempFolder folder;
    std::string text = "before";
};

std::size_t openDescriptors()
{
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors)));
}

TEST_F(WholeFile, TextIsReadUpToItsFirstNul)
{
    EXPECT_EQ(read(folder.write("f", "first\nsecond\xFF")), WholeFileResult::Read);
    EXPECT_EQ(text, "first\nsecond\xFF");
    EXPECT_EQ(read(folder.write("f", bytes("before\0after"))), WholeFileResult::Read);
    EXPECT_EQ(text, "before");
    for (const std::size_t size : {0U, 1U, 4096U, 32767U, 32768U, 32769U, 1000000U}) {
        const std::string content(size, 'x');
        EXPECT_EQ(read(folder.write("f", content)), WholeFileResult::Read) << size;
        EXPECT_TRUE(text == content) << size;
    }
}

TEST_F(WholeFile, OfALongerFileThanWantedOneByteMoreIsRead)
{
    const std::string path = folder.write("f", "0123456789");
    EXPECT_EQ(readWholeFile(path, text, 9), WholeFileResult::Read);
    EXPECT_EQ(text, "0123456789");
    EXPECT_EQ(readWholeFile(path, text, 8), WholeFileResult::Read);
    EXPECT_EQ(text, "012345678");
    EXPECT_EQ(readWholeFile(path, text, 10), WholeFileResult::Read);
    EXPECT_EQ(text, "0123456789");
}

TEST_F(WholeFile, MissingFileCannotBeOpened)
{
    EXPECT_EQ(read(folder.file("missing")), WholeFileResult::OpenFailed);
    EXPECT_EQ(read(""), WholeFileResult::OpenFailed);
    EXPECT_EQ(read(folder.file(std::string(5000, 'n'))), WholeFileResult::OpenFailed);
    EXPECT_EQ(text, "before");
}

TEST_F(WholeFile, FolderCannotBeRead)
{
    ASSERT_EQ(::mkdir(folder.file("d").c_str(), 0700), 0);
    folder.write("d/f", "text");
    EXPECT_NE(read(folder.file("d")), WholeFileResult::Read);
    EXPECT_EQ(text, "before");
}

TEST_F(WholeFile, PipeWithoutWriterIsNotWaitedFor)
{
    ASSERT_EQ(::mkfifo(folder.file("p").c_str(), 0600), 0);
    const int code = inChild([this] {
        ::alarm(10);
        EXPECT_EQ(read(folder.file("p")), WholeFileResult::Read);
        EXPECT_EQ(text, "");
    });
    EXPECT_EQ(code, 0) << "-1: it hung";
}

TEST_F(WholeFile, DeviceWithoutSizeReadsAsEmpty)
{
    EXPECT_EQ(read("/dev/zero"), WholeFileResult::Read);
    EXPECT_EQ(text, "");
}

TEST_F(WholeFile, FileOfFourGibibytesIsRefused)
{
    for (const off_t size : {off_t{4294967296}, off_t{4294967297}, off_t{1} << 40}) {
        const std::string path = folder.write("f", "text");
        ASSERT_EQ(::truncate(path.c_str(), size), 0);
        EXPECT_EQ(read(path), WholeFileResult::ReadFailed) << size;
    }
    EXPECT_EQ(text, "before");
}

TEST_F(WholeFile, OfOneByteLessTheBeginningIsRead)
{
    const std::string path = folder.write("f", "text");
    ASSERT_EQ(::truncate(path.c_str(), 4294967295), 0);
    EXPECT_EQ(IPCService::readWholeFile(path, text, 10), WholeFileResult::Read);
    EXPECT_EQ(text, "text");
}

TEST_F(WholeFile, UnknownSizeIsAFailure)
{
    const std::string path = folder.write("f", "text");
    systemCalls().fstatFails = true;
    EXPECT_EQ(read(path), WholeFileResult::SizeFailed);
    systemCalls().fstatFails = false;
    EXPECT_EQ(text, "before");
}

TEST_F(WholeFile, ExhaustedMemoryIsAFailure)
{
    const std::string path = folder.write("f", std::string(1000, 'x'));
    systemCalls().largestArray = 1000;
    EXPECT_EQ(read(path), WholeFileResult::AllocationFailed);
    EXPECT_EQ(text, "before");
    systemCalls().largestArray = 1001;
    EXPECT_EQ(read(path), WholeFileResult::Read);
    EXPECT_EQ(text, std::string(1000, 'x'));
}

TEST_F(WholeFile, NoDescriptorStaysOpen)
{
    const std::string path = folder.write("f", "text");
    const std::size_t before = openDescriptors();
    read(path);
    read(folder.file("missing"));
    systemCalls().fstatFails = true;
    read(path);
    systemCalls().fstatFails = false;
    systemCalls().largestArray = 1;
    read(path);
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
