#include "shared_mapping.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

SharedMapping::~SharedMapping()
{
    close();
}

SharedMapping::SharedMapping(SharedMapping&& other) noexcept
{
    *this = std::move(other);
}

SharedMapping& SharedMapping::operator=(SharedMapping&& other) noexcept
{
    std::swap(m_descriptor, other.m_descriptor);
    std::swap(m_data, other.m_data);
    std::swap(m_size, other.m_size);
    return *this;
}

int SharedMapping::open(const char* path)
{
    close();
    // Without O_CREAT: in a sticky folder the kernel refuses it, to root too, for a file of somebody else.
    m_descriptor = shm_open(path, O_RDWR, 0);
    struct stat status
    {
    };
    if (m_descriptor == -1 || fstat(m_descriptor, &status) != 0) {
        return errno;
    }
    if (status.st_size < 0 || static_cast<std::uint64_t>(status.st_size) > SIZE_MAX) {
        return EFBIG;
    }
    return map(static_cast<std::size_t>(status.st_size));
}

int SharedMapping::create(const char* path, std::size_t size)
{
    close();
    m_descriptor = shm_open(path, O_RDWR | O_CREAT | O_EXCL, 0660);
    if (m_descriptor == -1) {
        return errno;
    }
    int result = fchmod(m_descriptor, 0660) == 0 ? 0 : errno;
    if (result == 0) {
        // Takes the memory now: a full file system is an error here and a bus error at the first write otherwise.
        result = posix_fallocate(m_descriptor, 0, static_cast<off_t>(size));
    }
    if (result == 0) {
        result = map(size);
    }
    if (result != 0) {
        shm_unlink(path);
    }
    return result;
}

bool SharedMapping::intact() const
{
    struct stat status
    {
    };
    return fstat(m_descriptor, &status) == 0 && status.st_size >= 0 &&
           static_cast<std::uint64_t>(status.st_size) >= m_size;
}

int SharedMapping::map(std::size_t size)
{
    if (size == 0) {
        return 0;
    }
    void* const mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, m_descriptor, 0);
    if (mapped == MAP_FAILED) {
        return errno;
    }
    m_data = mapped;
    m_size = size;
    return 0;
}

void SharedMapping::close()
{
    if (m_data != nullptr) {
        munmap(m_data, m_size);
    }
    if (m_descriptor != -1) {
        ::close(m_descriptor);
    }
    m_descriptor = -1;
    m_data = nullptr;
    m_size = 0;
}
