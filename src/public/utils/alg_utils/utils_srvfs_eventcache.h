#ifndef ALG_UTILS_UTILS_SRVFS_EVENTCACHE_H
#define ALG_UTILS_UTILS_SRVFS_EVENTCACHE_H

#include <cstdint>

#include "public/utils/alg_utils/utils_log.h"

/// A subscription to the camera's event cache. The caller owns and zeroes it; used by one thread. Its descriptors
/// stay open until the process ends.
struct EventCacheHndl
{
    int nEventFd;              ///< the event service node
    int nCacheFd;              ///< the cache driver
    char szPublisherName[16];  ///< NUL-terminated
};

/// One event buffer, mapped into this process until it is released.
struct EventCacheBufData
{
    char* pData;              ///< first byte of the event's data, inside the mapping
    std::uint32_t nDataLen;   ///< bytes of data
    std::uint32_t nReserved;  ///< never written
    struct
    {
        void* pBufData;        ///< first byte of the mapping
        std::uint32_t length;  ///< bytes of the mapping
    } stMMapAddr;
};

/// Clears a handle, opens both device nodes and keeps the publisher's name. A cache driver that cannot be opened
/// shows only when a buffer is to be mapped. Descriptors opened before a failure stay open.
/// @return 0, -1 (memory, device, name) or -2 (null argument)
int Utils_EventCacheSubscriberInit(EventCacheHndl* ppstEventCacheHndl, const char* pPublisherName);

/// Opens a handle and subscribes it.
/// @param pPublisherName  whose events, at most 15 characters
/// @param tag             the subscriber's tag, at most 15 characters; null: "1"
/// @return 0, -1 or -2
int Utils_EventCacheSubscribe(EventCacheHndl* handle, const char* pPublisherName, const char* tag);

/// Waits without limit for one notification and maps its buffer.
/// @param pstBufData  filled when there is a buffer, else left as it is
/// @return 0, also when the notification carries no buffer; -2 on any failure
int Utils_EventCacheBufGet(EventCacheHndl* pstEventCacheHndl, EventCacheBufData* pstBufData);

/// Unmaps a buffer. Its fields keep their values.
/// @return 0, or -2 when there is nothing to release
int Utils_EventCacheBufRelease(EventCacheHndl* pstEventCacheHndl, EventCacheBufData* pstBufData);

#endif
