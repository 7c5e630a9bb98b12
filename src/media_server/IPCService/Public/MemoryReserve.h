#ifndef IPCSERVICE_MEMORYRESERVE_H
#define IPCSERVICE_MEMORYRESERVE_H

#include <Poco/Any.h>
#include <Poco/Dynamic/VarHolder.h>

#include <cstddef>
#include <type_traits>

namespace IPCService {

/// Memory kept back for the calling thread during a scope: an allocation with "new" that fails there is tried again
/// with the reserve given up. Scopes may be nested; the innermost reserve goes first.
class MemoryReserve
{
public:
    /// @param size  bytes; 0: none
    /// @throws std::bad_alloc
    explicit MemoryReserve(std::size_t size);
    ~MemoryReserve();
    MemoryReserve(const MemoryReserve&) = delete;
    MemoryReserve& operator=(const MemoryReserve&) = delete;

private:
    static void giveUpOne();

    void* m_pMemory;
    MemoryReserve* m_pOuter;
};

/// The reserve for handling JSON values. A value of POCO 1.13 for whose text there is no memory destroys what it never
/// made, and the process with it; so there is to be memory, or none of them is begun. Older values have no such
/// destructor and need no reserve.
/// @param textSize  bytes of the text that the values come from, or go into
/// @throws std::bad_alloc
inline MemoryReserve jsonReserve(std::size_t textSize)
{
    constexpr bool NEEDED = !std::is_trivially_destructible_v<Poco::Placeholder<Poco::Dynamic::VarHolder>>;
    constexpr std::size_t BASE_SIZE = 64 << 10;
    // A list of small numbers grows most: two characters become a value of 80 bytes, in a list that doubles.
    constexpr std::size_t GREATEST_GROWTH = 128;
    return MemoryReserve(NEEDED ? BASE_SIZE + textSize * GREATEST_GROWTH : 0);
}

}  // namespace IPCService

#endif
