#ifndef PLATFORM_HOST_SHARED_MAPPING_H
#define PLATFORM_HOST_SHARED_MAPPING_H

#include <cstddef>
#include <cstdint>

/** A POSIX shared memory object with a mapping of all of it. Owns the descriptor and the mapping. */
class SharedMapping
{
public:
    SharedMapping() = default;
    ~SharedMapping();
    SharedMapping(SharedMapping&& other) noexcept;
    SharedMapping& operator=(SharedMapping&& other) noexcept;

    /** Opens an existing object for reading and writing and maps it. @return 0 or an errno value */
    int open(const char* path);

    /**
     * Creates the object with `size` zero bytes and mode 0660, whatever the umask, and maps it.
     * @return 0 or an errno value, EEXIST if there is one already
     */
    int create(const char* path, std::size_t size);

    /** Whether the object still has the size that was mapped: touching the mapping is a bus error if it shrank. */
    bool intact() const;

    int descriptor() const { return m_descriptor; }
    void* data() const { return m_data; }
    std::size_t size() const { return m_size; }

private:
    int map(std::size_t size);
    void close();

    int m_descriptor = -1;
    void* m_data = nullptr;
    std::size_t m_size = 0;
};

#endif
