/*
 * Stand-in for the producer side of the camera's service framework: a ring buffer is a POSIX shared memory object
 * "/" + name (ring_layout.h). Results other than 0 are errno values, negated.
 *
 * A record that does not fit drops the oldest ones, read or not: with no reader attached the ring must not stay full
 * for ever. A record larger than the whole ring is refused, never cut.
 *
 * The ring belongs to the user and group that the process runs as when it opens it, mode 0660. A ring that is left over
 * from another user, and closed to this one, is not taken away from him: client_open fails with -EACCES.
 */
#include "srvfs_client.h"

#include <errno.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <new>
#include <string>
#include <type_traits>
#include <utility>

#include "ring_producer.h"

namespace {

constexpr std::uint64_t OPENED = 0x52494E474F50454E;

/** At the start of every handle; a handle that was never opened holds zeros here. */
struct ClientState
{
    std::uint64_t opened;
    RingProducer producer;
};

static_assert(sizeof(ClientState) <= SRVFS_CLIENT_STATE_SIZE);
static_assert(std::is_standard_layout_v<ClientState> && alignof(ClientState) <= alignof(std::max_align_t));

/** One block of srvfs_calloc. */
struct Block
{
    void* memory;
    Block* next;
};

/** All blocks. The framework's memory lives as long as the process: a leak checker is to see that it is still held. */
std::atomic<Block*> g_blocks{nullptr};

ClientState* openedState(void* handle)
{
    ClientState* const state = static_cast<ClientState*>(handle);
    return state != nullptr && state->opened == OPENED ? state : nullptr;
}

}  // namespace

void* srvfs_calloc(size_t count, size_t size)
{
    // The sanitizers' calloc ends the process where the C library's refuses.
    size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        return nullptr;
    }
    void* const memory = std::calloc(1, bytes);
    auto* const block = static_cast<Block*>(std::calloc(1, sizeof(Block)));
    if (memory == nullptr || block == nullptr) {
        std::free(memory);
        std::free(block);
        return nullptr;
    }
    block->memory = memory;
    block->next = g_blocks.load(std::memory_order_relaxed);
    while (!g_blocks.compare_exchange_weak(block->next, block, std::memory_order_release)) {
    }
    return memory;
}

/** Opening a handle that is open already closes what it had. */
int client_open(void* handle, const char* name, unsigned int size)
{
    if (handle == nullptr || name == nullptr || *name == '\0') {
        return -EINVAL;
    }
    try {
        RingProducer producer;
        const int result = producer.open(("/" + std::string(name)).c_str(), size);
        if (result != 0) {
            return -result;
        }
        if (ClientState* const state = openedState(handle)) {
            state->~ClientState();
        }
        new (handle) ClientState{OPENED, std::move(producer)};
        return 0;
    } catch (const std::exception&) {
        return -ENOMEM;
    }
}

int client_msgsend(void* handle, const void* data, unsigned int length, int flag)
{
    ClientState* const state = openedState(handle);
    return state == nullptr ? -EBADF : -state->producer.put(data, length, static_cast<std::uint32_t>(flag));
}
