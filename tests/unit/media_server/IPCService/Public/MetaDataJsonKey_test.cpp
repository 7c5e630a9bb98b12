#include "media_server/IPCService/Public/MetaDataJsonKey.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

namespace MetaDataJsonKey = IPCService::MetaDataGW::MetaDataJsonKey;
using Pairs = std::vector<std::pair<std::string, std::string>>;

const char SOURCE[] = CAMGATE_SOURCE_DIR "/src/media_server/IPCService/Public/MetaDataJsonKey";

std::string contentOf(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    EXPECT_FALSE(text.str().empty()) << path;
    return text.str();
}

/// The list that the publishers gave, kept apart from the code: names and keys in order.
Pairs publishedList()
{
    Pairs list;
    std::ifstream file(CAMGATE_SOURCE_DIR "/tests/unit/data/metadata_keys.tsv");
    std::string name;
    std::string key;
    while (std::getline(file, name, '\t') && std::getline(file, key)) {
        list.emplace_back(name, key);
    }
    return list;
}

/// Every match of a pattern in a text: its first group and, if it has one, its second.
Pairs matches(const std::string& text, const std::string& pattern)
{
    Pairs found;
    const std::regex expression(pattern);
    for (std::sregex_iterator match(text.begin(), text.end(), expression); match != std::sregex_iterator(); ++match) {
        found.emplace_back((*match)[1].str(), match->size() > 2 ? (*match)[2].str() : "");
    }
    return found;
}

/// The constants as this program is linked with them. Does not compile when one is missing or of another type.
Pairs linkedConstants()
{
    Pairs constants;
#define METADATA_KEY(NAME)                                                                         \
    static_assert(std::is_same<decltype(MetaDataJsonKey::NAME), const std::string>::value, #NAME); \
    constants.emplace_back(#NAME, MetaDataJsonKey::NAME);
#include "data/metadata_key_names.inc"
#undef METADATA_KEY
    return constants;
}

TEST(MetaDataJsonKey, PublishedListHas209DifferentNames)
{
    const Pairs list = publishedList();
    const std::map<std::string, std::string> names(list.begin(), list.end());

    EXPECT_EQ(list.size(), 209U);
    EXPECT_EQ(names.size(), 209U);
}

TEST(MetaDataJsonKey, EveryConstantHasItsPublishedKey)
{
    EXPECT_EQ(linkedConstants(), publishedList());
}

TEST(MetaDataJsonKey, HeaderDeclaresTheConstantsInOrderAndNoOthers)
{
    Pairs names;
    for (const auto& entry : publishedList()) {
        names.emplace_back(entry.first, "");
    }
    EXPECT_EQ(matches(contentOf(std::string(SOURCE) + ".h"), R"(extern const std::string (\w+);)"), names);
}

TEST(MetaDataJsonKey, SourceDefinesTheConstantsInOrderAndNoOthers)
{
    EXPECT_EQ(matches(contentOf(std::string(SOURCE) + ".cpp"), R"re(const std::string (\w+) = "([^"]*)";)re"),
              publishedList());
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
