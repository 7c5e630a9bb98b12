#include "media_server/IPCService/Public/IPCServiceException.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "media_server/IPCService/Public/CustomObjCreateException.h"

namespace {

using IPCService::IPCServiceException;
using IPCService::MetaDataGW::CustomObjCreateException;

static_assert(std::is_base_of<Poco::ApplicationException, IPCServiceException>::value, "base");
static_assert(std::is_base_of<IPCServiceException, CustomObjCreateException>::value, "base");
static_assert(sizeof(CustomObjCreateException) == sizeof(Poco::Exception), "holds what Poco::Exception holds");
static_assert(sizeof(IPCServiceException) == sizeof(Poco::Exception), "holds what Poco::Exception holds");

void expectTold(const Poco::Exception& exception, const std::string& name)
{
    EXPECT_EQ(exception.name(), name);
    EXPECT_EQ(exception.message(), "no room");
    EXPECT_EQ(exception.code(), 7);
    EXPECT_EQ(exception.displayText(), name + ": no room");
}

TEST(ServiceException, TellsItsNameMessageAndCode)
{
    expectTold(IPCServiceException("no room", 7), "IPC Service exception");
    expectTold(CustomObjCreateException("no room", 7), "Custom Obj Create Failed");
}

}  // namespace
