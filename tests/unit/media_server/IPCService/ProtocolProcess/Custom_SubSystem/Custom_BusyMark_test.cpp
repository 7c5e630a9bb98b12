#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_BusyMark.h"

#include <gtest/gtest.h>

#include <optional>

namespace {

using IPCService::MetaDataGW::BusyMark;
using IPCService::MetaDataGW::isBusy;

TEST(BusyMarkTest, IsSetWhileItIsHeld)
{
    bool mark = false;
    {
        const BusyMark held(mark);
        EXPECT_TRUE(isBusy(mark));
    }
    EXPECT_FALSE(isBusy(mark));
}

TEST(BusyMarkTest, HoldThatHasEndedDoesNotClearTheMarkOfTheNext)
{
    bool mark = false;
    std::optional<BusyMark> first(mark);
    first->release();
    EXPECT_FALSE(isBusy(mark));
    const BusyMark second(mark);
    first->release();
    EXPECT_TRUE(isBusy(mark));
    first.reset();
    EXPECT_TRUE(isBusy(mark));
}

}  // namespace
