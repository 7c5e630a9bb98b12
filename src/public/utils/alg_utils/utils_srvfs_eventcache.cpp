#include "public/utils/alg_utils/utils_srvfs_eventcache.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "bounds_checked.h"
#include "public/utils/alg_utils/utils_srvfs_eventcache_wire.h"

ITGT_DEBUG_FLAG g_enITGTDebugFlag = ITGT_DEBUG_OFF;

namespace {

using namespace EventCacheWire;  // what the functions below read and write

constexpr char LOG_SOURCE[] = "public/utils/alg_utils/utils_srvfs_eventcache";
constexpr char EVENT_NODE[] = "/mnt/srvfs/event.paas.olv";
constexpr char CACHE_NODE[] = "/dev/cache";
constexpr char DEFAULT_TAG[] = "1";

constexpr useconds_t READ_FAILURE_PAUSE = 200000;  // microseconds
/// One of so many read failures in a row of calls is logged.
constexpr unsigned READ_FAILURES_PER_LINE = 500;

bool openNode(const char* path, int& descriptor)
{
    descriptor = ::open(path, O_RDWR | O_CLOEXEC);
    return descriptor >= 1;
}

/// @return false when the mapping cannot hold the data it claims
bool locateData(char* mapping, std::uint32_t mappedLength, EventCacheBufData& data)
{
    if (mappedLength < sizeof(BlockHeader)) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:buffer length %u is too short", UTILS_LOG_TAG, mappedLength);
        return false;
    }
    BlockHeader header;
    std::memcpy(&header, mapping, sizeof(header));
    const std::uint32_t room = mappedLength - static_cast<std::uint32_t>(sizeof(header));
    std::uint32_t start = sizeof(header);
    if (header.dataLength <= room && room - header.dataLength == OLD_PRODUCER_GAP) {
        UTILS_LOG(UTILS_LOG_INFORMATION, "[%s]:Producter Version is below 8.0.1", UTILS_LOG_TAG);
        start += OLD_PRODUCER_GAP;
    }
    if (header.dataLength > mappedLength - start) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:data length %u exceeds mapping of %u", UTILS_LOG_TAG, header.dataLength,
                  mappedLength);
        return false;
    }
    data.pData = mapping + start;
    data.nDataLen = header.dataLength;
    data.stMMapAddr.pBufData = mapping;
    data.stMMapAddr.length = mappedLength;
    return true;
}

int mapBuffer(int cacheFd, const BufferDescriptor& descriptor, EventCacheBufData& data)
{
    MapRequest request = {0, descriptor.identifier, descriptor.length, descriptor.attribute};
    if (::ioctl(cacheFd, MAP_REQUEST, &request) < 0) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:ioctl fail errno %d ", UTILS_LOG_TAG, errno);
        return IPC_EXCHANGE_FAILED;
    }
    // The driver maps below 4 GiB, also into a 64-bit process.
    char* mapping = reinterpret_cast<char*>(static_cast<std::uintptr_t>(request.address));
    if (mapping == nullptr) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:no mapping for buffer %u", UTILS_LOG_TAG, descriptor.identifier);
        return IPC_EXCHANGE_FAILED;
    }
    if (!locateData(mapping, descriptor.length, data)) {
        ::munmap(mapping, descriptor.length);
        return IPC_EXCHANGE_FAILED;
    }
    return IPC_SUCCESS;
}

int countReadFailure()
{
    static std::atomic<unsigned> failures{0};
    if (failures.fetch_add(1) % READ_FAILURES_PER_LINE == 0) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:read NULL", UTILS_LOG_TAG);
    }
    ::usleep(READ_FAILURE_PAUSE);
    return IPC_EXCHANGE_FAILED;
}

/// Takes the buffer descriptor out of a notification of the given number of bytes.
bool findDescriptor(const unsigned char* notification, std::size_t size, std::size_t offset,
                    BufferDescriptor& descriptor)
{
    if (size < sizeof(descriptor) || offset > size - sizeof(descriptor)) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:descriptor offset %zu exceeds notification of %zu", UTILS_LOG_TAG, offset,
                  size);
        return false;
    }
    std::memcpy(&descriptor, notification + offset, sizeof(descriptor));
    return true;
}

/// What keeps a buffer from being released, as the format of its log line; null when nothing does.
const char* missingForRelease(const EventCacheHndl* pstEventCacheHndl, const EventCacheBufData* pstBufData)
{
    if (pstEventCacheHndl == nullptr) {
        return "[%s]:pstEventCacheHndl NULL";
    }
    if (pstBufData == nullptr || pstBufData->pData == nullptr) {
        return "[%s]:pstBufData NULL";
    }
    if (pstBufData->stMMapAddr.pBufData == nullptr) {
        return "[%s]:stMMapAddr pBufData NULL";
    }
    return pstBufData->stMMapAddr.length == 0 ? "[%s]:stMMapAddr length NULL" : nullptr;
}

}  // namespace

int Utils_EventCacheSubscriberInit(EventCacheHndl* ppstEventCacheHndl, const char* pPublisherName)
{
    if (ppstEventCacheHndl == nullptr) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:ppstEventCacheHndl NULL", UTILS_LOG_TAG);
        return IPC_EXCHANGE_FAILED;
    }
    if (pPublisherName == nullptr) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:pPublisherName NULL", UTILS_LOG_TAG);
        return IPC_EXCHANGE_FAILED;
    }
    if (memset_s(ppstEventCacheHndl, sizeof(*ppstEventCacheHndl), 0, sizeof(*ppstEventCacheHndl)) != 0) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:memset_s fail", UTILS_LOG_TAG);
        return IPC_FAILURE;
    }
    if (!openNode(EVENT_NODE, ppstEventCacheHndl->nEventFd)) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:open event pass fail", UTILS_LOG_TAG);
        return IPC_FAILURE;
    }
    UTILS_LOG(UTILS_LOG_DEBUG, "[%s]:open event fd is %d", UTILS_LOG_TAG, ppstEventCacheHndl->nEventFd);
    // Not tested: a camera without the cache driver still gets its events, and only mapping them fails.
    openNode(CACHE_NODE, ppstEventCacheHndl->nCacheFd);
    UTILS_LOG(UTILS_LOG_DEBUG, "[%s]:open cache fd is %d", UTILS_LOG_TAG, ppstEventCacheHndl->nCacheFd);
    if (strncpy_s(ppstEventCacheHndl->szPublisherName, sizeof(ppstEventCacheHndl->szPublisherName), pPublisherName,
                  strlen(pPublisherName)) != 0) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:strncpy_s fail", UTILS_LOG_TAG);
        return IPC_FAILURE;
    }
    return IPC_SUCCESS;
}

int Utils_EventCacheSubscribe(EventCacheHndl* handle, const char* pPublisherName, const char* tag)
{
    if (handle == nullptr) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:ppstEventCacheHndl NULL", UTILS_LOG_TAG);
        return IPC_EXCHANGE_FAILED;
    }
    if (pPublisherName == nullptr) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:pPublisherName NULL", UTILS_LOG_TAG);
        return IPC_EXCHANGE_FAILED;
    }
    const int nRet = Utils_EventCacheSubscriberInit(handle, pPublisherName);
    if (nRet != IPC_SUCCESS) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:Utils_EventCacheSubscriberInit fail", UTILS_LOG_TAG);
        return nRet;
    }
    SubscriptionHeader header = {SUBSCRIPTION_MAGIC,         0, SUBSCRIPTION_TYPE,       0, 0,
                                 sizeof(SubscriptionHeader), 0, sizeof(SubscriptionBody)};
    SubscriptionBody body = {};
    const char* subscriberTag = tag != nullptr ? tag : DEFAULT_TAG;
    if (strncpy_s(body.publisherName, sizeof(body.publisherName), pPublisherName, strlen(pPublisherName)) != 0 ||
        strncpy_s(body.subscriberTag, sizeof(body.subscriberTag), subscriberTag, strlen(subscriberTag)) != 0) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:strncpy_s fail", UTILS_LOG_TAG);
        return IPC_FAILURE;
    }
    const iovec parts[] = {{&header, sizeof(header)}, {&body, sizeof(body)}};
    if (::writev(handle->nEventFd, parts, 2) == -1) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:writev fail", UTILS_LOG_TAG);
        return IPC_FAILURE;
    }
    return IPC_SUCCESS;
}

int Utils_EventCacheBufGet(EventCacheHndl* pstEventCacheHndl, EventCacheBufData* pstBufData)
{
    if (pstEventCacheHndl == nullptr) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:pstEventCacheHndl NULL", UTILS_LOG_TAG);
        return IPC_EXCHANGE_FAILED;
    }
    if (pstBufData == nullptr) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:pstBufData NULL", UTILS_LOG_TAG);
        return IPC_EXCHANGE_FAILED;
    }
    // Zeroed: a notification shorter than its head has status 0.
    unsigned char notification[LONGEST_NOTIFICATION] = {};
    const ssize_t size = ::read(pstEventCacheHndl->nEventFd, notification, sizeof(notification));
    if (size < 0) {
        return countReadFailure();
    }
    NotificationHead head;
    std::memcpy(&head, notification, sizeof(head));
    if (head.status != STATUS_SUCCESS) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:read code err: %d", UTILS_LOG_TAG, static_cast<int>(head.status));
        return IPC_EXCHANGE_FAILED;
    }
    if (head.noBuffer != 0) {
        return IPC_SUCCESS;
    }
    BufferDescriptor descriptor;
    if (!findDescriptor(notification, static_cast<std::size_t>(size), head.descriptorOffset, descriptor)) {
        return IPC_EXCHANGE_FAILED;
    }
    return mapBuffer(pstEventCacheHndl->nCacheFd, descriptor, *pstBufData);
}

int Utils_EventCacheBufRelease(EventCacheHndl* pstEventCacheHndl, EventCacheBufData* pstBufData)
{
    const char* missing = missingForRelease(pstEventCacheHndl, pstBufData);
    if (missing != nullptr) {
        UTILS_LOG(UTILS_LOG_ERROR, missing, UTILS_LOG_TAG);
        return IPC_EXCHANGE_FAILED;
    }
    ::munmap(pstBufData->stMMapAddr.pBufData, pstBufData->stMMapAddr.length);
    return IPC_SUCCESS;
}
