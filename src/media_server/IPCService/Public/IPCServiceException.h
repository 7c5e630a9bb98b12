#ifndef IPCSERVICE_IPCSERVICEEXCEPTION_H
#define IPCSERVICE_IPCSERVICEEXCEPTION_H

#include <Poco/Exception.h>

namespace IPCService {

/// Common base of the exceptions that this service raises itself. Its name() is "IPC Service exception".
POCO_DECLARE_EXCEPTION(, IPCServiceException, Poco::ApplicationException)

}  // namespace IPCService

#endif
