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
    FakePlatform::Settings settings;
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
    return 0;
}

void* srvfs_calloc(std::size_t count, std::size_t size)
{
    const std::lock_guard<std::mutex> lock(mutex());
    state().allocations.push_back(count * size);
    if (state().settings.allocationFails) {
        return nullptr;
    }
    state().memory.emplace_back(std::calloc(count, size));
    return state().memory.back().get();
}

int client_open(void* handle, const char* name, unsigned int size)
{
    const std::lock_guard<std::mutex> lock(mutex());
    state().opened.push_back({handle, name, size});
    return state().settings.openResult;
}

int client_msgsend(void* handle, const void* data, unsigned int length, int flag)
{
    if (state().settings.onSend) {
        state().settings.onSend();
    }
    const std::lock_guard<std::mutex> lock(mutex());
    state().sent.push_back({handle, std::string(static_cast<const char*>(data), length), data, flag});
    return state().settings.sendResult;
}

namespace FakePlatform {

Settings& settings()
{
    return state().settings;
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
