#include "media_server/IPCService/Public/TurnQueue.h"

#include <algorithm>

namespace IPCService {

bool TurnQueue::take(const void* who, Clock::time_point now, Clock::time_point end)
{
    if (next() != who || (m_owner != nullptr && now < m_end)) {
        return false;
    }
    m_line.pop_front();
    m_owner = who;
    m_end = end;
    return true;
}

void TurnQueue::leave(const void* who) noexcept
{
    m_line.erase(std::remove(m_line.begin(), m_line.end(), who), m_line.end());
    if (m_owner == who) {
        m_owner = nullptr;
    }
}

TurnQueue::Clock::time_point TurnQueue::comesAt(const void* who) const noexcept
{
    return next() == who ? m_end : Clock::time_point::max();
}

}  // namespace IPCService
