#ifndef PLATFORM_HOST_RING_PRODUCER_H
#define PLATFORM_HOST_RING_PRODUCER_H

#include <cstddef>
#include <cstdint>

#include "ring_layout.h"
#include "shared_mapping.h"

/**
 * The writing end of a ring buffer (ring_layout.h). One per ring at a time; not thread safe.
 *
 * The ring stays when the producer goes, and a later producer of the same name and capacity carries on in it.
 * A ring of another capacity is replaced by a new one; a reader that is attached to the old one sees nothing more.
 */
class RingProducer
{
public:
    /**
     * @param path      name of the shared memory, with the leading slash
     * @param capacity  bytes for records, rounded up to a multiple of 8
     * @return 0 or an errno value
     */
    int open(const char* path, std::uint32_t capacity);

    /**
     * Appends a record; drops the oldest ones if it needs their room.
     *
     * @return 0, EMSGSIZE for a record larger than the ring, EINVAL without data, EIO if the shared memory shrank
     */
    int put(const void* data, std::uint32_t length, std::uint32_t flag);

private:
    int openMapping(const char* path, std::size_t size);
    void setUp();
    void makeRoom(std::uint64_t span);
    RingHeader& header() const;
    RingWord& word(std::uint64_t position) const;
    void store(std::uint64_t position, const void* data, std::size_t length) const;

    SharedMapping m_mapping;
    std::uint64_t m_capacity = 0;
    std::uint64_t m_oldest = 0;
    std::uint64_t m_end = 0;
};

#endif
