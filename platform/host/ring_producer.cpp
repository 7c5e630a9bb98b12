#include "ring_producer.h"

#include <errno.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>

int RingProducer::open(const char* path, std::uint32_t capacity)
{
    const std::uint64_t rounded = (capacity + RING_ALIGNMENT - 1) / RING_ALIGNMENT * RING_ALIGNMENT;
    if (rounded == 0 || rounded > UINT32_MAX || rounded > SIZE_MAX - sizeof(RingHeader)) {
        return EINVAL;
    }
    const int result = openMapping(path, static_cast<std::size_t>(sizeof(RingHeader) + rounded));
    if (result == 0) {
        m_capacity = rounded;
        setUp();
    }
    return result;
}

int RingProducer::put(const void* data, std::uint32_t length, std::uint32_t flag)
{
    if (data == nullptr && length > 0) {
        return EINVAL;
    }
    const std::uint64_t span = recordSpan(length);
    if (span > m_capacity) {
        return EMSGSIZE;
    }
    if (!m_mapping.intact()) {
        return EIO;
    }
    makeRoom(span);
    const RecordHeader record{length, flag};
    store(m_end, &record, sizeof record);
    store(m_end + sizeof record, data, length);
    m_end += span;
    header().end.store(m_end, std::memory_order_release);
    header().published.fetch_add(1, std::memory_order_release);
    syscall(SYS_futex, &header().published, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
    return 0;
}

int RingProducer::openMapping(const char* path, std::size_t size)
{
    // Twice: the ring may appear or go between the two calls.
    for (int attempt = 0; attempt < 2; ++attempt) {
        int result = m_mapping.open(path);
        if (result == 0 && m_mapping.size() == size) {
            return 0;
        }
        if (result == 0 && shm_unlink(path) != 0 && errno != ENOENT) {
            return errno;
        }
        if (result != 0 && result != ENOENT) {
            return result;
        }
        result = m_mapping.create(path, size);
        if (result != EEXIST) {
            return result;
        }
    }
    return EEXIST;
}

/** Carries on in a ring that a producer of the same capacity left in order; empties any other. */
void RingProducer::setUp()
{
    RingHeader& ring = header();
    m_oldest = ring.oldest.load(std::memory_order_relaxed);
    m_end = ring.end.load(std::memory_order_relaxed);
    if (ring.magic.load(std::memory_order_relaxed) == RING_MAGIC &&
        ring.version.load(std::memory_order_relaxed) == RING_VERSION &&
        ring.capacity.load(std::memory_order_relaxed) == m_capacity && validPositions(m_oldest, m_end, m_capacity)) {
        return;
    }
    m_oldest = 0;
    m_end = 0;
    ring.magic.store(0, std::memory_order_relaxed);
    ring.version.store(RING_VERSION, std::memory_order_release);
    ring.capacity.store(static_cast<std::uint32_t>(m_capacity), std::memory_order_release);
    ring.oldest.store(0, std::memory_order_release);
    ring.end.store(0, std::memory_order_release);
    ring.consumed.store(0, std::memory_order_release);
    ring.magic.store(RING_MAGIC, std::memory_order_release);
}

void RingProducer::makeRoom(std::uint64_t span)
{
    while (m_end + span - m_oldest > m_capacity) {
        const std::uint64_t dropped = recordSpan(word(m_oldest).load(std::memory_order_relaxed));
        // Anybody may have written over the length: where it leads out of the ring, all records go.
        m_oldest = dropped > m_end - m_oldest ? m_end : m_oldest + dropped;
    }
    header().oldest.store(m_oldest, std::memory_order_release);
}

RingHeader& RingProducer::header() const
{
    return *static_cast<RingHeader*>(m_mapping.data());
}

RingWord& RingProducer::word(std::uint64_t position) const
{
    char* const records = static_cast<char*>(m_mapping.data()) + sizeof(RingHeader);
    return *reinterpret_cast<RingWord*>(records + position % m_capacity);
}

/** Each word is stored with release order, so that whoever reads it sees the `oldest` that was written before it. */
void RingProducer::store(std::uint64_t position, const void* data, std::size_t length) const
{
    const char* const source = static_cast<const char*>(data);
    for (std::size_t offset = 0; offset < length; offset += sizeof(RingWord)) {
        std::uint32_t value = 0;
        std::memcpy(&value, source + offset, std::min(sizeof value, length - offset));
        word(position + offset).store(value, std::memory_order_release);
    }
}
