#include "public/utils/alg_utils/utils_process_ringbuf.h"

#include "bounds_checked.h"
#include "public/utils/alg_utils/utils_log.h"

namespace {

constexpr char LOG_SOURCE[] = "public/utils/alg_utils/utils_process_ringbuf";
constexpr char NAME_PREFIX[] = "metadata_servfile";
constexpr std::size_t NAME_SIZE = 256;

}  // namespace

int Utils_ProcessRingBufProducerInit(ProcessRingBufHndl** ppHandle, void* /*reserved*/, long long llKey,
                                     long long llSize)
{
    auto* pHandle = static_cast<ProcessRingBufHndl*>(srvfs_calloc(1, sizeof(ProcessRingBufHndl)));
    if (pHandle == nullptr) {
        return IPC_FAILURE;
    }
    *ppHandle = pHandle;

    char szName[NAME_SIZE];
    if (memset_s(szName, sizeof(szName), 0, sizeof(szName)) != 0) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:Failed to memset buf", UTILS_LOG_TAG);
        return IPC_FAILURE;
    }
    // The bounds-checked set reports a failure as -1 on the camera and as another negative code elsewhere.
    if (sprintf_s(szName, sizeof(szName), "%s%lld", NAME_PREFIX, llKey) < 0) {
        UTILS_LOG(UTILS_LOG_ERROR, "[%s]:Failed to sprintf_s", UTILS_LOG_TAG);
        return IPC_FAILURE;
    }
    // Logged as an error although it is none, so that it stays in logs which keep errors only.
    UTILS_LOG(UTILS_LOG_ERROR, "[%s]:client open name %s\n", UTILS_LOG_TAG, szName);

    client_open(pHandle, szName, static_cast<unsigned int>(llSize));
    pthread_mutex_init(&pHandle->m_mutex, nullptr);
    return IPC_SUCCESS;
}

std::int64_t Utils_ProcessRingBufPut(ProcessRingBufHndl* handle, const PutRecord* record, int flag)
{
    if (handle == nullptr) {
        return IPC_FAILURE;
    }
    pthread_mutex_lock(&handle->m_mutex);
    const int result = client_msgsend(handle, record->pData, record->nLen, flag == 0 ? 1 : 0);
    pthread_mutex_unlock(&handle->m_mutex);
    return result;
}
