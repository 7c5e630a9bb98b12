#include "media_server/IPCService/Public/ExceptionText.h"

#include <Poco/Exception.h>

namespace IPCService {

std::string exceptionText(const std::exception& exc) noexcept
{
    try {
        const auto* pException = dynamic_cast<const Poco::Exception*>(&exc);
        return pException != nullptr ? pException->displayText() : exc.what();
    } catch (const std::exception&) {
        return "out of memory";  // short enough to need none
    }
}

}  // namespace IPCService
