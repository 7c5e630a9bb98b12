#include "media_server/IPCService/Public/WakeUp.h"

#include <Poco/Exception.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace IPCService {

WakeUp::WakeUp() : m_descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (m_descriptor < 0) {
        throw Poco::SystemException("cannot create an event descriptor", errno);
    }
}

WakeUp::~WakeUp()
{
    ::close(m_descriptor);
}

void WakeUp::signal() const noexcept
{
    // Fails only when the counter is full, and then the descriptor is readable already.
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(m_descriptor, &one, sizeof(one));
}

void WakeUp::clear() const noexcept
{
    std::uint64_t signals = 0;
    [[maybe_unused]] const ssize_t taken = ::read(m_descriptor, &signals, sizeof(signals));
}

}  // namespace IPCService
