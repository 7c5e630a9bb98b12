#ifndef PLATFORM_HOST_RING_LAYOUT_H
#define PLATFORM_HOST_RING_LAYOUT_H

#include <atomic>
#include <cstddef>
#include <cstdint>

/*
 * The ring buffer in shared memory: a RingHeader, then `capacity` bytes of records.
 *
 * Positions count bytes since the ring was set up and never wrap; a position's place in the data area is
 * position % capacity. A record is a RecordHeader, its payload, and padding up to a multiple of 8 bytes; it may run
 * over the end of the data area into its beginning.
 *
 * One producer, one reader, no lock: a reader that hangs or dies never holds the producer up. The producer makes room
 * by dropping the oldest records whole, read or not, and says so in `oldest` before it writes over them. A reader
 * copies a record first and looks at `oldest` afterwards: if it has passed the record, the copy is worthless.
 *
 * The producer keeps its own positions; what another process writes in here cannot lead it astray.
 */

constexpr std::uint64_t RING_MAGIC = 0x474E4952534D4143;  // "CAMSRING" in memory, little endian
constexpr std::uint32_t RING_VERSION = 1;
constexpr std::uint64_t RING_ALIGNMENT = 8;

struct RingHeader
{
    std::atomic<std::uint64_t> magic;      // offset 0; written last when the ring is set up
    std::atomic<std::uint32_t> version;    // offset 8
    std::atomic<std::uint32_t> capacity;   // offset 12, bytes, a multiple of 8
    std::atomic<std::uint64_t> oldest;     // offset 16, position of the oldest record; the producer's
    std::atomic<std::uint64_t> end;        // offset 24, position after the newest record; the producer's
    std::atomic<std::uint64_t> consumed;   // offset 32, position of the first unread record; the reader's
    std::atomic<std::uint32_t> published;  // offset 40, counts records; a futex that the reader sleeps on
    std::uint32_t reserved[5];             // offset 44
};

struct RecordHeader
{
    std::uint32_t length;  // offset 0, bytes of the payload
    std::uint32_t flag;    // offset 4, as given to client_msgsend
};

using RingWord = std::atomic<std::uint32_t>;

static_assert(sizeof(RingHeader) == 64 && offsetof(RingHeader, version) == 8 && offsetof(RingHeader, capacity) == 12 &&
              offsetof(RingHeader, oldest) == 16 && offsetof(RingHeader, end) == 24 &&
              offsetof(RingHeader, consumed) == 32 && offsetof(RingHeader, published) == 40);
static_assert(sizeof(RecordHeader) == RING_ALIGNMENT && sizeof(RingWord) == 4);
static_assert(std::atomic<std::uint64_t>::is_always_lock_free && RingWord::is_always_lock_free);

/** Bytes that a record with a payload of `length` bytes takes in the ring. */
constexpr std::uint64_t recordSpan(std::uint32_t length)
{
    return sizeof(RecordHeader) + (length + RING_ALIGNMENT - 1) / RING_ALIGNMENT * RING_ALIGNMENT;
}

/** Whether the positions can belong to a ring of that capacity. */
constexpr bool validPositions(std::uint64_t oldest, std::uint64_t end, std::uint64_t capacity)
{
    return oldest <= end && end - oldest <= capacity && oldest % RING_ALIGNMENT == 0 && end % RING_ALIGNMENT == 0;
}

#endif
