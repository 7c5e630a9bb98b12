#include "media_server/IPCService/Public/IPCServiceException.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>

#include "media_server/IPCService/Public/CustomObjCreateException.h"

namespace {

using IPCService::IPCServiceException;
using IPCService::MetaDataGW::CustomObjCreateException;

template <typename Exception>
struct Names;

template <>
struct Names<IPCServiceException>
{
    static constexpr char NAME[] = "IPC Service exception";
};

template <>
struct Names<CustomObjCreateException>
{
    static constexpr char NAME[] = "Custom Obj Create Failed";
};

template <typename Exception>
class ServiceException : public testing::Test
{
protected:
    const Exception exception{"no room", 7};
    const std::string name = Names<Exception>::NAME;
};

using Exceptions = testing::Types<IPCServiceException, CustomObjCreateException>;

/// Names the suites.
class ExceptionName
{
public:
    template <typename Exception>
    static std::string GetName(int /*index*/)
    {
        return std::is_same<Exception, IPCServiceException>::value ? "Base" : "ObjCreate";
    }
};

TYPED_TEST_SUITE(ServiceException, Exceptions, ExceptionName);

static_assert(std::is_base_of<Poco::ApplicationException, IPCServiceException>::value, "base");
static_assert(std::is_base_of<IPCServiceException, CustomObjCreateException>::value, "base");
static_assert(sizeof(CustomObjCreateException) == sizeof(Poco::Exception), "holds what Poco::Exception holds");
static_assert(sizeof(IPCServiceException) == sizeof(Poco::Exception), "holds what Poco::Exception holds");

TYPED_TEST(ServiceException, TellsItsNameMessageAndCode)
{
    EXPECT_EQ(this->exception.name(), this->name);
    EXPECT_EQ(this->exception.what(), this->name);
    EXPECT_EQ(this->exception.message(), "no room");
    EXPECT_EQ(this->exception.code(), 7);
    EXPECT_EQ(this->exception.displayText(), this->name + ": no room");
}

TYPED_TEST(ServiceException, ClassNameIsTheRunTimeTypeName)
{
    const Poco::Exception& base = this->exception;
    EXPECT_STREQ(base.className(), typeid(TypeParam).name());
}

TYPED_TEST(ServiceException, CloneIsANewObjectOfTheSameClass)
{
    const Poco::Exception& base = this->exception;
    const std::unique_ptr<Poco::Exception> copy(base.clone());

    EXPECT_NE(copy.get(), &base);
    const Poco::Exception& copied = *copy;
    EXPECT_EQ(typeid(copied), typeid(TypeParam));
    EXPECT_EQ(copy->displayText(), base.displayText());
    EXPECT_EQ(copy->code(), 7);
}

TYPED_TEST(ServiceException, RethrowThrowsACopyByValue)
{
    const Poco::Exception& base = this->exception;
    try {
        base.rethrow();
        FAIL() << "nothing thrown";
    } catch (const TypeParam& caught) {
        EXPECT_NE(&caught, &base);
        EXPECT_EQ(typeid(caught), typeid(TypeParam));
        EXPECT_EQ(caught.displayText(), base.displayText());
        EXPECT_EQ(caught.code(), 7);
    }
}

TYPED_TEST(ServiceException, CopyConstructorKeepsEverything)
{
    const TypeParam copy(this->exception);
    EXPECT_EQ(copy.message(), "no room");
    EXPECT_EQ(copy.code(), 7);
}

TEST(ServiceExceptionBase, CallersCatchAllByIt)
{
    EXPECT_THROW(throw CustomObjCreateException("x"), IPCServiceException);
    EXPECT_THROW(throw IPCServiceException("x"), Poco::ApplicationException);
}

}  // namespace
