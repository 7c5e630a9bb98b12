#include "media_server/IPCService/Public/ExceptionText.h"

#include <Poco/Exception.h>

namespace IPCService {

std::string exceptionText(const std::exception& exc)
{
    const auto* pException = dynamic_cast<const Poco::Exception*>(&exc);
    return pException != nullptr ? pException->displayText() : exc.what();
}

}  // namespace IPCService
