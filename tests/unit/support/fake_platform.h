#ifndef TESTS_UNIT_SUPPORT_FAKE_PLATFORM_H
#define TESTS_UNIT_SUPPORT_FAKE_PLATFORM_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

/// The camera's platform as the code under test sees it: this program has a QL_ChangeProcUser, srvfs_calloc,
/// client_open and client_msgsend of its own. They succeed, and note how they were called, unless a test says
/// otherwise. As new at the start of each test.
namespace FakePlatform {

/// What the calls come to.
struct Settings
{
    bool allocationFails = false;
    int openResult = 0;
    int sendResult = 0;
    std::function<void()> onSend;  ///< called within each client_msgsend, without any lock held
};

/// To be changed before other threads call.
Settings& settings();

struct Opened
{
    void* handle;
    std::string name;
    unsigned int size;
};

struct Sent
{
    void* handle;
    std::string record;  ///< the bytes
    const void* data;    ///< where they were
    int flag;
};

// The calls until now; any thread.
std::vector<std::string> users();        ///< of each QL_ChangeProcUser
std::vector<std::size_t> allocations();  ///< bytes of each srvfs_calloc
std::vector<Opened> opened();            ///< of each client_open
std::vector<Sent> sent();                ///< of each client_msgsend
std::vector<Sent> takeSent();            ///< the same, and forgets them

void reset();

}  // namespace FakePlatform

#endif
