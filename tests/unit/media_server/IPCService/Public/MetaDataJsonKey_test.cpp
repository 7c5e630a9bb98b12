#include "media_server/IPCService/Public/MetaDataJsonKey.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

namespace MetaDataJsonKey = IPCService::MetaDataGW::MetaDataJsonKey;
using Pairs = std::vector<std::pair<std::string, std::string>>;

const Pairs PUBLISHED = {
#define METADATA_KEY(NAME, KEY) {#NAME, KEY},
#include "data/metadata_keys.inc"
#undef METADATA_KEY
};

/// What the header's constants are made from.
const Pairs LISTED = {
#define METADATA_KEY(NAME, KEY) {#NAME, KEY},
#include "media_server/IPCService/Public/MetaDataJsonKey.inc"
#undef METADATA_KEY
};

/// The constants as this program is linked with them. Does not compile when one is missing or of another type.
Pairs linkedConstants()
{
    Pairs constants;
#define METADATA_KEY(NAME, KEY)                                                                    \
    static_assert(std::is_same<decltype(MetaDataJsonKey::NAME), const std::string>::value, #NAME); \
    constants.emplace_back(#NAME, MetaDataJsonKey::NAME);
#include "data/metadata_keys.inc"
#undef METADATA_KEY
    return constants;
}

TEST(MetaDataJsonKey, PublishedListHas209DifferentNames)
{
    std::set<std::string> names;
    for (const auto& [name, key] : PUBLISHED) {
        names.insert(name);
    }
    EXPECT_EQ(PUBLISHED.size(), 209U);
    EXPECT_EQ(names.size(), 209U);
}

TEST(MetaDataJsonKey, EveryConstantHasItsPublishedKey)
{
    EXPECT_EQ(linkedConstants(), PUBLISHED);
}

TEST(MetaDataJsonKey, ConstantsStandInThePublishedOrderAndThereAreNoOthers)
{
    EXPECT_EQ(LISTED, PUBLISHED);
}

TEST(MetaDataJsonKey, TwoConstantsShareTheLaneIndex)
{
    EXPECT_EQ(MetaDataJsonKey::STAITSTICS_LANE_INDEX, "StatisticsLaneIndex");
    EXPECT_EQ(MetaDataJsonKey::STATISTICS_LANE_INDEX, "StatisticsLaneIndex");
    EXPECT_NE(&MetaDataJsonKey::STAITSTICS_LANE_INDEX, &MetaDataJsonKey::STATISTICS_LANE_INDEX);
}

TEST(MetaDataJsonKey, MisspeltNamesAndKeysAreKept)
{
    EXPECT_EQ(MetaDataJsonKey::ITS_TRAFFIC_STRAIGHT_VHEICLE_COUNT, "ItsTrafficStraightVehicleCount");
    EXPECT_EQ(MetaDataJsonKey::ITS_TRAFFIC_RIGHT_VHEICLE_COUNT, "ItsTrafficRightVehicleCount");
    EXPECT_EQ(MetaDataJsonKey::RADER_CAR_DIR, "RaderCarDir");
    EXPECT_EQ(MetaDataJsonKey::VEHICLE_PARK_POS, "VehiclePackPos");
    EXPECT_EQ(MetaDataJsonKey::PIC_SNAPSHOT_TIMEMS, "PicSnapshotTimes");
    EXPECT_EQ(MetaDataJsonKey::RIDERMAN_HUMANCARCOLOR, "Riderman_HumanCarColor");
    EXPECT_EQ(MetaDataJsonKey::REGULA_PIC_QTY, "RegulaPicQty");
}

}  // namespace
