#include "support/fake_platform.h"

#include <cstdlib>
#include <memory>
#include <mutex>
#include <utility>

#include "ql_process.h"
#include "srvfs_client.h"

namespace {

struct FreeMemory
{
    void operator()(void* memory) const { std::free(memory); }
};

struct State
{
    int changeUserResult = 0;
    bool allocationFails = false;
    int openResult = 0;
    int sendResult = 0;
    std::function<int()> sendAction;
    std::vector<std::string> users;
    std::vector<std::size_t> allocations;
    std::vector<FakePlatform::Opened> opened;
    std::vector<FakePlatform::Sent> sent;
    /// The framework's allocations are never freed by their users.
    std::vector<std::unique_ptr<void, FreeMemory>> memory;
};

std::mutex& mutex()
{
    static std::mutex& instance = *new std::mutex;
    return instance;
}

/// Never destroyed: a thread may call until the process has ended.
State& state()
{
    static State& instance = *new State;
    return instance;
}

template <typename Value>
void set(Value State::*member, Value value)
{
    const std::lock_guard<std::mutex> lock(mutex());
    state().*member = std::move(value);
}

template <typename Value>
Value get(Value State::*member)
{
    const std::lock_guard<std::mutex> lock(mutex());
    return state().*member;
}

}  // namespace

int QL_ChangeProcUser(const char* user)
{
    const std::lock_guard<std::mutex> lock(mutex());
    state().users.emplace_back(user);
    return state().changeUserResult;
}

void* srvfs_calloc(std::size_t count, std::size_t size)
{
    const std::lock_guard<std::mutex> lock(mutex());
    state().allocations.push_back(count * size);
    if (state().allocationFails) {
        return nullptr;
    }
    state().memory.emplace_back(std::calloc(count, size));
    return state().memory.back().get();
}

int client_open(void* handle, const char* name, unsigned int size)
{
    const std::lock_guard<std::mutex> lock(mutex());
    state().opened.push_back({handle, name, size});
    return state().openResult;
}

int client_msgsend(void* handle, const void* data, unsigned int length, int flag)
{
    if (const std::function<int()> action = get(&State::sendAction)) {
        set(&State::sendResult, action());
    }
    const std::lock_guard<std::mutex> lock(mutex());
    state().sent.push_back({handle, std::string(static_cast<const char*>(data), length), data, flag});
    return state().sendResult;
}

namespace FakePlatform {

void setChangeUserResult(int result)
{
    set(&State::changeUserResult, result);
}

void setAllocationFails(bool fails)
{
    set(&State::allocationFails, fails);
}

void setOpenResult(int result)
{
    set(&State::openResult, result);
}

void setSendResult(int result)
{
    set(&State::sendResult, result);
}

void onSend(std::function<int()> action)
{
    set(&State::sendAction, std::move(action));
}

std::vector<std::string> users()
{
    return get(&State::users);
}

std::vector<std::size_t> allocations()
{
    return get(&State::allocations);
}

std::vector<Opened> opened()
{
    return get(&State::opened);
}

std::vector<Sent> sent()
{
    return get(&State::sent);
}

std::vector<Sent> takeSent()
{
    const std::lock_guard<std::mutex> lock(mutex());
    return std::exchange(state().sent, {});
}

void reset()
{
    const std::lock_guard<std::mutex> lock(mutex());
    state() = State();
}

}  // namespace FakePlatform
