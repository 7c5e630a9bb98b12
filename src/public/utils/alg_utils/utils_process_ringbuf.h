#ifndef ALG_UTILS_UTILS_PROCESS_RINGBUF_H
#define ALG_UTILS_UTILS_PROCESS_RINGBUF_H

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "srvfs_client.h"

/// Producer of a ring buffer that other processes read. Lives in memory of the service framework, to the end of the
/// process.
struct ProcessRingBufHndl
{
    alignas(std::max_align_t) unsigned char clientState[SRVFS_CLIENT_STATE_SIZE];  ///< the framework's own
    pthread_mutex_t m_mutex;                                                       ///< serialises puts
};

/// One record to put. The caller keeps the data.
struct PutRecord
{
    const void* pData;        ///< first byte
    std::uint32_t nReserved;  ///< not read by the put
    std::uint32_t nLen;       ///< bytes
};

/// Opens the ring buffer "metadata_servfile" followed by the key in decimal. Runs once, before any put.
///
/// @param ppHandle  set to the handle as soon as it exists, also when a later step fails
/// @param reserved  not used
/// @param llKey     key of the ring buffer
/// @param llSize    capacity in bytes; the framework takes 32 bits of it
/// @return 0, or -1. A ring buffer that the framework could not open is reported by the first put.
int Utils_ProcessRingBufProducerInit(ProcessRingBufHndl** ppHandle, void* reserved, long long llKey, long long llSize);

/// Puts one record. May be called from several threads.
///
/// @param flag  0 for an ordinary record; the framework is passed its logical inverse
/// @return what the framework answered, 0 on success; -1 for a null handle
std::int64_t Utils_ProcessRingBufPut(ProcessRingBufHndl* handle, const PutRecord* record, int flag);

#endif
