#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_CommandHead.h"
#include "media_server/IPCService/Public/MsgData.h"
#include "messages_layout.h"
#include "public/utils/alg_utils/utils_srvfs_eventcache_wire.h"

// docs/messages.md against the layouts of the code, both ways. The tables are compared whole: whatever one side has and
// the other has not is found.

using namespace EventCacheWire;
using IPCService::MetaDataGW::CommandHead;
namespace MsgField = IPCService::MsgField;

namespace {

template <typename MessageField>
DocumentTable::Row payload(const std::string& direction, const std::string& name)
{
    using Value = decltype(MessageField::get(std::declval<const MSG_DATA&>()));
    const std::string width = std::to_string(MessageField::WIDTH);
    std::string type = "char[" + width + "]";
    if constexpr (!std::is_same_v<Value, std::string>) {
        type = typeName<Value>();
    }
    return {direction, std::to_string(MessageField::OFFSET), width, type, name};
}

#define PAYLOAD(direction, name) payload<MsgField::name>(direction, #name)

/// The layouts of the code, by the heading of their table.
std::map<std::string, Layout> layouts()
{
    std::map<std::string, Layout> all = {
#include "messages_structs.inc"
    };
    all.insert(
        {{"7018 CMD_ALARM_FACE_LIB_SET",
          {PAYLOAD("request", Count), PAYLOAD("request", ListId), PAYLOAD("request", ListType),
           PAYLOAD("request", ListOnControl), PAYLOAD("request", ListThreshold), PAYLOAD("request", ListName)}},
         {"7019 CMD_FACE_LIB_CLEAR", {PAYLOAD("reply", ClearStatus), PAYLOAD("reply", ClearConfigPath)}},
         {"7020 CMD_FACE_IMPORT_FILE",
          {PAYLOAD("request", Count), PAYLOAD("request", ImportFileFlag), PAYLOAD("request", ImportFileDirectory),
           PAYLOAD("request", ImportFileName), PAYLOAD("reply", ImportFileTaskId)}},
         {"7021 CMD_FACE_IMPORT_PROGRESS",
          {PAYLOAD("request", ProgressTaskId), PAYLOAD("reply", ProgressStatus), PAYLOAD("reply", ProgressTotal),
           PAYLOAD("reply", ProgressCurrent), PAYLOAD("reply", ProgressStatePath)}},
         {"7031 CMD_FACE_IMPORT_PAGE", {PAYLOAD("reply", PageTime)}}});
    return all;
}

TEST_F(MessagesTable, HasTheLayoutsOfTheCode)
{
    EXPECT_EQ(documented(), layouts());
}

TEST_F(MessagesTable, HasTheSizesCodesAndConstantsOfTheCode)
{
#define SIZE(Struct) {#Struct, std::to_string(sizeof(Struct))}
    EXPECT_EQ(pairs("Sizes", "Struct", "Bytes"),
              (Pairs{SIZE(CommandHead), SIZE(MSG_DATA), SIZE(SubscriptionHeader), SIZE(SubscriptionBody),
                     SIZE(NotificationHead), SIZE(BufferDescriptor), SIZE(MapRequest), SIZE(BlockHeader)}));
    EXPECT_EQ(pairs("Message codes", "Name", "Command"),
              pairsIn("src/media_server/IPCService/Public/MsgData.h", R"((CMD_\w+) = (\d+),)"));
    EXPECT_EQ(
        pairs("Event cache", "Constant", "Value"),
        pairsIn("src/public/utils/alg_utils/utils_srvfs_eventcache_wire.h", R"(constexpr [\w: ]+ ([A-Z_]+) = (\w+);)"));
}

/// The places of the parts, for both kinds of producers.
TEST_F(MessagesTable, HasThePartsOfAMappedBuffer)
{
    const std::string header = std::to_string(sizeof(BlockHeader));
    const std::string gap = std::to_string(OLD_PRODUCER_GAP);
    const std::string behindGap = std::to_string(sizeof(BlockHeader) + OLD_PRODUCER_GAP);
    const DocumentTable& table = document.table("Mapped buffer", "Before 8.0.1");
    EXPECT_EQ(table.columns, (DocumentTable::Row{"Since 8.0.1", "Before 8.0.1", "Width", "What"}));
    EXPECT_EQ(table.rows, (std::vector<DocumentTable::Row>{{"0", "0", header, "[block header](#block-header)"},
                                                           {"", header, gap, "ignored"},
                                                           {header, behindGap, "n", "data"}}));
}

TEST_F(MessagesTable, NamesEveryPayloadFieldOfTheCode)
{
    std::set<std::string> named;
    for (const auto& [heading, layout] : layouts()) {
        for (const DocumentTable::Row& field : layout) {
            if (!field.front().empty()) {
                named.insert(field.back());
            }
        }
    }
    std::set<std::string> declared;
    for (const auto& match :
         matches(sourceText("src/media_server/IPCService/Public/MsgData.h"), R"(using (\w+) = Msg(?:Number|Text)<)")) {
        declared.insert(match[0]);
    }
    EXPECT_EQ(named, declared);
}

}  // namespace
