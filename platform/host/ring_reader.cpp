#include "ring_reader.h"

#include <errno.h>
#include <linux/futex.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <system_error>

namespace {

constexpr int SET_UP_TRIES = 1000;
constexpr long SET_UP_PAUSE = 1000000;  // ns

std::string openFailure(const std::string& name, int cause)
{
    const std::string what =
        "cannot open ring buffer \"" + name + "\": " + std::generic_category().message(cause) + ". ";
    if (cause == ENOENT) {
        return what + "Nobody has opened it yet: start the process that fills it first.";
    }
    if (cause == EACCES) {
        return what + "Run this as its owner, as a member of its group, or as root (ls -l /dev/shm).";
    }
    return what + "Check the name (ls /dev/shm).";
}

}  // namespace

RingReader::RingReader(const std::string& name)
{
    const std::string path = "/" + name;
    // The producer sets a new ring up in a moment, but not in one step.
    for (int tries = 0; tries < SET_UP_TRIES; ++tries) {
        const int result = m_mapping.open(path.c_str());
        if (result != 0) {
            throw RingError(openFailure(name, result));
        }
        if (m_mapping.size() >= sizeof(RingHeader) && header().magic.load(std::memory_order_acquire) != 0) {
            break;
        }
        const timespec pause{0, SET_UP_PAUSE};
        nanosleep(&pause, nullptr);
    }
    checkLayout(name);
    if (flock(m_mapping.descriptor(), LOCK_EX | LOCK_NB) != 0) {
        throw RingError("ring buffer \"" + name + "\" has a reader already, and each record goes to one only. " +
                        "Stop the other reader first.");
    }
}

void RingReader::checkLayout(const std::string& name)
{
    const bool hasHeader = m_mapping.size() >= sizeof(RingHeader);
    if (hasHeader && header().magic.load(std::memory_order_acquire) == RING_MAGIC) {
        m_capacity = header().capacity.load(std::memory_order_relaxed);
    }
    if (m_capacity == 0 || m_capacity % RING_ALIGNMENT != 0 || m_capacity != m_mapping.size() - sizeof(RingHeader) ||
        header().version.load(std::memory_order_relaxed) != RING_VERSION) {
        throw RingError("shared memory \"/" + name + "\" is no ring buffer that this program knows. " +
                        "Check the name; if it is right, restart the process that fills it.");
    }
}

bool RingReader::peek(std::string& record)
{
    while (true) {
        m_published = header().published.load(std::memory_order_acquire);
        // `oldest` before `end`: the other way round the producer could pass between the two.
        const std::uint64_t oldest = header().oldest.load(std::memory_order_acquire);
        const std::uint64_t end = header().end.load(std::memory_order_acquire);
        const std::uint64_t position = header().consumed.load(std::memory_order_relaxed);
        if (oldest > end || oldest % RING_ALIGNMENT != 0 || end % RING_ALIGNMENT != 0 || !m_mapping.intact()) {
            throw RingError("the ring buffer was damaged by another process. Restart the process that fills it.");
        }
        if (position == end) {
            return false;
        }
        if (position < oldest || position > end || position % RING_ALIGNMENT != 0) {
            m_lost += position < oldest ? oldest - position : 0;
            skipTo(oldest);
            continue;
        }
        const bool copied = copyRecord(position, end - position, record);
        if (header().oldest.load(std::memory_order_relaxed) > position) {
            continue;
        }
        if (copied) {
            m_position = position;
            m_next = position + recordSpan(static_cast<std::uint32_t>(record.size()));
            return true;
        }
        m_lost += end - position;
        skipTo(end);
    }
}

void RingReader::consume()
{
    skipTo(m_next);
}

void RingReader::wait() const
{
    syscall(SYS_futex, &header().published, FUTEX_WAIT, m_published, nullptr, nullptr, 0);
}

std::uint64_t RingReader::takeLostBytes()
{
    const std::uint64_t lost = m_lost;
    m_lost = 0;
    return lost;
}

/** @return false if the length leads out of the `available` bytes: the record is damaged, or overwritten by now */
bool RingReader::copyRecord(std::uint64_t position, std::uint64_t available, std::string& record) const
{
    const std::uint32_t length = word(position).load(std::memory_order_acquire);
    if (recordSpan(length) > std::min(available, m_capacity)) {
        return false;
    }
    record.resize(length);
    load(position + sizeof(RecordHeader), record.data(), length);
    return true;
}

void RingReader::skipTo(std::uint64_t position)
{
    header().consumed.store(position, std::memory_order_relaxed);
}

RingHeader& RingReader::header() const
{
    return *static_cast<RingHeader*>(m_mapping.data());
}

RingWord& RingReader::word(std::uint64_t position) const
{
    char* const records = static_cast<char*>(m_mapping.data()) + sizeof(RingHeader);
    return *reinterpret_cast<RingWord*>(records + position % m_capacity);
}

/** Acquire order for each word: the counterpart of the producer's store. */
void RingReader::load(std::uint64_t position, char* data, std::size_t length) const
{
    for (std::size_t offset = 0; offset < length; offset += sizeof(RingWord)) {
        const std::uint32_t value = word(position + offset).load(std::memory_order_acquire);
        std::memcpy(data + offset, &value, std::min(sizeof value, length - offset));
    }
}
