#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "support/child.h"
#include "support/temp_folder.h"

namespace {

TEST(Main, FailedStartEndsWith70AndItsTextOnStandardError)
{
    const TempFolder folder;
    const std::string errors = folder.file("errors");
    // The sandbox of the tests has no event node.
    const int code = inChild([&errors] {
        ::dup2(::open(errors.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), STDERR_FILENO);
        char program[] = CAMGATE_BIN_DIR "/protocol_process";
        char* arguments[] = {program, nullptr};
        ::execv(program, arguments);
        ADD_FAILURE() << program;
    });
    EXPECT_EQ(code, 70);

    std::ostringstream text;
    text << std::ifstream(errors).rdbuf();
    EXPECT_THAT(text.str(), testing::HasSubstr("nRet == IPC_SUCCESS"));
    EXPECT_THAT(text.str(), testing::HasSubstr("line 91"));
    EXPECT_EQ(text.str().back(), '\n');
}

}  // namespace
