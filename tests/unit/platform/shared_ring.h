#ifndef TESTS_UNIT_PLATFORM_SHARED_RING_H
#define TESTS_UNIT_PLATFORM_SHARED_RING_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "srvfs_client.h"

/** A ring buffer name of this process's own; the shared memory goes with it. */
class RingName
{
public:
    RingName()
    {
        static int counter = 0;
        m_name = "camgate_test_" + std::to_string(getpid()) + "_" + std::to_string(++counter);
    }
    ~RingName() { shm_unlink(path().c_str()); }
    RingName(const RingName&) = delete;
    RingName& operator=(const RingName&) = delete;

    const std::string& name() const { return m_name; }
    std::string path() const { return "/" + m_name; }

private:
    std::string m_name;
};

/** A producer's handle. There is no call that closes it: its mapping stays until the process ends. */
class Handle
{
public:
    int open(const RingName& ring, unsigned int capacity)
    {
        return client_open(m_state, ring.name().c_str(), capacity);
    }
    int put(const std::string& record, int flag = 1)
    {
        return client_msgsend(m_state, record.data(), static_cast<unsigned int>(record.size()), flag);
    }
    void* state() { return m_state; }

private:
    alignas(16) unsigned char m_state[SRVFS_CLIENT_STATE_SIZE] = {};
};

/** The bytes of the shared memory, looked at from outside by offset. */
class RawRing
{
public:
    explicit RawRing(const RingName& ring)
    {
        const int descriptor = shm_open(ring.path().c_str(), O_RDWR, 0);
        EXPECT_NE(descriptor, -1);
        EXPECT_EQ(fstat(descriptor, &m_status), 0);
        m_bytes = static_cast<unsigned char*>(mmap(nullptr, size(), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0));
        EXPECT_NE(m_bytes, MAP_FAILED);
        close(descriptor);
    }
    ~RawRing() { munmap(m_bytes, size()); }
    RawRing(const RawRing&) = delete;
    RawRing& operator=(const RawRing&) = delete;

    std::size_t size() const { return static_cast<std::size_t>(m_status.st_size); }
    mode_t mode() const { return m_status.st_mode & 07777U; }
    unsigned char* bytes() const { return m_bytes; }

    template <typename Number>
    Number number(std::size_t offset) const
    {
        Number value = 0;
        std::memcpy(&value, m_bytes + offset, sizeof value);
        return value;
    }
    std::uint64_t oldest() const { return number<std::uint64_t>(16); }
    std::uint64_t end() const { return number<std::uint64_t>(24); }

    /** Waits until the reader has marked every record as read. @return false if it takes too long */
    bool waitUntilConsumed() const
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (number<std::uint64_t>(32) != end()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            std::this_thread::yield();
        }
        return true;
    }

    /** The payloads of all records, oldest first. */
    std::vector<std::string> records() const
    {
        std::vector<std::string> result;
        for (std::uint64_t position = oldest(); position < end();) {
            const std::uint32_t length = number<std::uint32_t>(static_cast<std::size_t>(64 + position % (size() - 64)));
            std::string payload;
            for (std::uint32_t i = 0; i < length; ++i) {
                payload += static_cast<char>(m_bytes[64 + (position + 8 + i) % (size() - 64)]);
            }
            result.push_back(payload);
            position += 8 + (length + 7U) / 8U * 8U;
        }
        return result;
    }

private:
    struct stat m_status
    {
    };
    unsigned char* m_bytes = nullptr;
};

#endif
