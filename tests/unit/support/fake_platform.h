#ifndef TESTS_UNIT_SUPPORT_FAKE_PLATFORM_H
#define TESTS_UNIT_SUPPORT_FAKE_PLATFORM_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

/// The camera's platform as the code under test sees it: this program has a QL_ChangeProcUser, srvfs_calloc,
/// client_open and client_msgsend of its own. They succeed, and note how they were called, unless a test says
/// otherwise. As new at the start of each test. Settings are made before other threads call; notes may be read any
/// time.
namespace FakePlatform {

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

void setChangeUserResult(int result);
void setAllocationFails(bool fails);
void setOpenResult(int result);
void setSendResult(int result);
/// Called within each client_msgsend, without any lock held; the result is the framework's.
void onSend(std::function<int()> action);

std::vector<std::string> users();        ///< of each QL_ChangeProcUser
std::vector<std::size_t> allocations();  ///< bytes of each srvfs_calloc
std::vector<Opened> opened();            ///< of each client_open
std::vector<Sent> sent();                ///< of each client_msgsend
std::vector<Sent> takeSent();            ///< the same, and forgets them

void reset();

}  // namespace FakePlatform

#endif
