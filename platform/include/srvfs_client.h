#ifndef PLATFORM_SRVFS_CLIENT_H
#define PLATFORM_SRVFS_CLIENT_H

/* The producer side of the camera's service framework: named ring buffers that other processes read. */

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Bytes that the framework may use at the start of a client handle for its own state. */
#define SRVFS_CLIENT_STATE_SIZE 512

/** Allocates count * size zeroed bytes from the framework. Returns NULL on failure. */
void* srvfs_calloc(size_t count, size_t size);

/**
 * Opens a ring buffer as a producer.
 *
 * @param handle  zeroed memory whose first SRVFS_CLIENT_STATE_SIZE bytes belong to the framework from now on
 * @param name    name of the ring buffer, NUL-terminated
 * @param size    capacity of the ring buffer in bytes
 * @return 0 on success
 */
int client_open(void* handle, const char* name, unsigned int size);

/**
 * Puts one record into a ring buffer that client_open opened. Not to be called from two threads at a time.
 *
 * @param data    first byte of the record
 * @param length  bytes of the record
 * @param flag    the framework's own; 1 for an ordinary record
 * @return 0 on success
 */
int client_msgsend(void* handle, const void* data, unsigned int length, int flag);

#ifdef __cplusplus
}
#endif

#endif
