#ifndef TESTS_UNIT_SUPPORT_CHILD_H
#define TESTS_UNIT_SUPPORT_CHILD_H

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

/// Runs a body in a child process, where expectations may be used.
/// @return the child's exit code: 0 when all held, 1 when not, what the body exits with, or -1 after a signal
template <typename Body>
int inChild(Body body)
{
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        body();
        std::fflush(nullptr);
        std::_Exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

#endif
