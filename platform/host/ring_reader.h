#ifndef PLATFORM_HOST_RING_READER_H
#define PLATFORM_HOST_RING_READER_H

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "ring_layout.h"
#include "shared_mapping.h"

/** What is wrong and what to do about it, for people. */
class RingError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/**
 * The reading end of a ring buffer (ring_layout.h). One per ring at a time, in whatever process; not thread safe.
 * Where it has read up to is kept in the ring, so a later reader goes on from there.
 */
class RingReader
{
public:
    /** @param name  name of the ring buffer, as given to client_open. Throws RingError. */
    explicit RingReader(const std::string& name);

    /** Copies the first unread record. Throws RingError if the ring is damaged. @return false if there is none */
    bool peek(std::string& record);

    /** Marks the record of the last peek as read. */
    void consume();

    /** Sleeps until the producer has put a record since the last peek. A signal ends the sleep too. */
    void wait() const;

    /** Bytes of records that were overwritten or damaged before they could be read, since the last call. */
    std::uint64_t takeLostBytes();

private:
    void checkLayout(const std::string& name);
    bool copyRecord(std::uint64_t position, std::uint64_t available, std::string& record) const;
    void skipTo(std::uint64_t position);
    RingHeader& header() const;
    RingWord& word(std::uint64_t position) const;
    void load(std::uint64_t position, char* data, std::size_t length) const;

    SharedMapping m_mapping;
    std::uint64_t m_capacity = 0;
    std::uint64_t m_position = 0;  // of the record that the last peek copied
    std::uint64_t m_next = 0;      // the position after it
    std::uint64_t m_lost = 0;
    std::uint32_t m_published = 0;  // as it was before the last peek looked
};

#endif
