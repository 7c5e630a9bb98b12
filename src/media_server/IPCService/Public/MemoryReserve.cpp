#include "media_server/IPCService/Public/MemoryReserve.h"

#include <cstdlib>
#include <new>

namespace IPCService {

namespace {

thread_local MemoryReserve* innermost = nullptr;

}  // namespace

MemoryReserve::MemoryReserve(std::size_t size) : m_pMemory(nullptr), m_pOuter(innermost)
{
    if (size == 0) {
        return;
    }
    static const auto before = std::set_new_handler(giveUpOne);
    (void)before;
    m_pMemory = std::malloc(size);
    if (m_pMemory == nullptr) {
        throw std::bad_alloc();
    }
    innermost = this;
}

MemoryReserve::~MemoryReserve()
{
    std::free(m_pMemory);
    innermost = m_pOuter;
}

void MemoryReserve::giveUpOne()
{
    for (MemoryReserve* pReserve = innermost; pReserve != nullptr; pReserve = pReserve->m_pOuter) {
        if (pReserve->m_pMemory != nullptr) {
            std::free(pReserve->m_pMemory);
            pReserve->m_pMemory = nullptr;
            return;
        }
    }
    throw std::bad_alloc();
}

}  // namespace IPCService
