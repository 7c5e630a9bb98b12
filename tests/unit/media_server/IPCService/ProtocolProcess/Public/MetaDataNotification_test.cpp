#include "media_server/IPCService/ProtocolProcess/Public/MetaDataNotification.h"

#include <Poco/AutoPtr.h>
#include <Poco/JSON/Object.h>
#include <Poco/Notification.h>
#include <gtest/gtest.h>

#include <type_traits>

namespace {

using IPCService::MetaDataGW::MetaDataNotification;

static_assert(std::is_base_of<Poco::Notification, MetaDataNotification>::value, "base");

TEST(MetaDataNotification, PointsToTheRecordAndDoesNotOwnIt)
{
    Poco::JSON::Object::Ptr object = new Poco::JSON::Object;
    object->set("ChannelID", 3);
    {
        const Poco::AutoPtr<MetaDataNotification> notification(new MetaDataNotification(object.get()));
        EXPECT_EQ(notification->m_pObject, object.get());
    }
    EXPECT_EQ(object.referenceCount(), 1);
    EXPECT_EQ(object->getValue<int>("ChannelID"), 3);
}

}  // namespace
