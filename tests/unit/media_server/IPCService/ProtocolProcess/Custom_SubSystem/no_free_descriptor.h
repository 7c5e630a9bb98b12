#ifndef TESTS_UNIT_CUSTOM_SUBSYSTEM_NO_FREE_DESCRIPTOR_H
#define TESTS_UNIT_CUSTOM_SUBSYSTEM_NO_FREE_DESCRIPTOR_H

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

/** While it lives, this process gets no new descriptor. */
class NoFreeDescriptor
{
public:
    NoFreeDescriptor()
    {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &m_before), 0);
        // The lowest free number; all below are in use.
        const int next = dup(STDIN_FILENO);
        close(next);
        const rlimit full = {static_cast<rlim_t>(next), m_before.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &full), 0);
    }
    ~NoFreeDescriptor() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &m_before), 0); }
    NoFreeDescriptor(const NoFreeDescriptor&) = delete;
    NoFreeDescriptor& operator=(const NoFreeDescriptor&) = delete;

private:
    rlimit m_before = {};
};

#endif
