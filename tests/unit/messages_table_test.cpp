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
#include "messages_document.h"
#include "public/utils/alg_utils/utils_srvfs_eventcache_wire.h"

// docs/messages.md against the layouts of the code, both ways. The tables are compared whole: whatever one side has and
// the other has not is found.

using namespace EventCacheWire;
using IPCService::MetaDataGW::CommandHead;
namespace MsgField = IPCService::MsgField;

namespace {

/// The fields of a message, or of what a command keeps in its payload, in the columns that the tables have for them.
using Layout = std::vector<DocumentTable::Row>;
const DocumentTable::Row COLUMNS = {"In", "Offset", "Width", "Type", "Field"};
using Pairs = std::multiset<std::pair<std::string, std::string>>;

template <typename Value>
std::string typeName()
{
    using Element = std::remove_extent_t<Value>;
    if constexpr (std::is_array_v<Value>) {
        return (std::is_same_v<Element, char> ? "char[" : "bytes[") + std::to_string(std::extent_v<Value>) + "]";
    } else if constexpr (std::is_enum_v<Value>) {
        return typeName<std::underlying_type_t<Value>>();
    } else {
        static_assert(std::is_integral_v<Value>);
        return (std::is_signed_v<Value> ? "i" : "u") + std::to_string(8 * sizeof(Value));
    }
}

template <typename Member>
DocumentTable::Row member(const std::string& name, std::size_t offset)
{
    return {"", std::to_string(offset), std::to_string(sizeof(Member)), typeName<Member>(), name};
}

/// The members of a struct, which leave no byte of it out.
template <typename Struct>
Layout whole(const Layout& members)
{
    std::size_t end = 0;
    for (const DocumentTable::Row& row : members) {
        EXPECT_EQ(row[1], std::to_string(end)) << row.back();
        end += std::stoul(row[2]);
    }
    EXPECT_EQ(end, sizeof(Struct));
    return members;
}

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

#define MEMBER(Struct, name) member<decltype(Struct::name)>(#name, offsetof(Struct, name))
#define PAYLOAD(direction, name) payload<MsgField::name>(direction, #name)

std::map<std::string, Layout> layouts()
{
    return {
        {"Command head", whole<CommandHead>({MEMBER(CommandHead, destPath), MEMBER(CommandHead, srcPath),
                                             MEMBER(CommandHead, reserved1), MEMBER(CommandHead, tag),
                                             MEMBER(CommandHead, reserved2), MEMBER(CommandHead, reserved3),
                                             MEMBER(CommandHead, bodyLength), MEMBER(CommandHead, reserved4),
                                             MEMBER(CommandHead, reserved5), MEMBER(CommandHead, reserved6)})},
        {"MSG_DATA", whole<MSG_DATA>({MEMBER(MSG_DATA, destPath), MEMBER(MSG_DATA, srcPath), MEMBER(MSG_DATA, unused1),
                                      MEMBER(MSG_DATA, subType), MEMBER(MSG_DATA, command), MEMBER(MSG_DATA, unused2),
                                      MEMBER(MSG_DATA, module), MEMBER(MSG_DATA, payload)})},
        {"7018 CMD_ALARM_FACE_LIB_SET",
         {PAYLOAD("request", Count), PAYLOAD("request", ListId), PAYLOAD("request", ListType),
          PAYLOAD("request", ListOnControl), PAYLOAD("request", ListThreshold), PAYLOAD("request", ListName)}},
        {"7019 CMD_FACE_LIB_CLEAR", {PAYLOAD("reply", ClearStatus), PAYLOAD("reply", ClearConfigPath)}},
        {"7020 CMD_FACE_IMPORT_FILE",
         {PAYLOAD("request", Count), PAYLOAD("request", ImportFileFlag), PAYLOAD("request", ImportFileDirectory),
          PAYLOAD("request", ImportFileName), PAYLOAD("reply", ImportFileTaskId)}},
        {"7021 CMD_FACE_IMPORT_PROGRESS",
         {PAYLOAD("request", ProgressTaskId), PAYLOAD("reply", ProgressStatus), PAYLOAD("reply", ProgressTotal),
          PAYLOAD("reply", ProgressCurrent), PAYLOAD("reply", ProgressStatePath)}},
        {"7031 CMD_FACE_IMPORT_PAGE", {PAYLOAD("reply", PageTime)}},
        {"Subscription header",
         whole<SubscriptionHeader>({MEMBER(SubscriptionHeader, magic), MEMBER(SubscriptionHeader, unused1),
                                    MEMBER(SubscriptionHeader, type), MEMBER(SubscriptionHeader, unused2),
                                    MEMBER(SubscriptionHeader, unused3), MEMBER(SubscriptionHeader, headerLength),
                                    MEMBER(SubscriptionHeader, unused4), MEMBER(SubscriptionHeader, bodyLength)})},
        {"Subscription body",
         whole<SubscriptionBody>({MEMBER(SubscriptionBody, unused1), MEMBER(SubscriptionBody, publisherName),
                                  MEMBER(SubscriptionBody, subscriberTag), MEMBER(SubscriptionBody, unused2)})},
        {"Notification",
         whole<NotificationHead>({MEMBER(NotificationHead, unused), MEMBER(NotificationHead, noBuffer),
                                  MEMBER(NotificationHead, status), MEMBER(NotificationHead, descriptorOffset)})},
        {"Buffer descriptor",
         whole<BufferDescriptor>({MEMBER(BufferDescriptor, identifier), MEMBER(BufferDescriptor, unused),
                                  MEMBER(BufferDescriptor, length), MEMBER(BufferDescriptor, attribute)})},
        {"Map request", whole<MapRequest>({MEMBER(MapRequest, address), MEMBER(MapRequest, identifier),
                                           MEMBER(MapRequest, length), MEMBER(MapRequest, attribute)})},
        {"Block header", whole<BlockHeader>({MEMBER(BlockHeader, unused), MEMBER(BlockHeader, dataLength)})}};
}

/// What the two groups of a pattern match in a source file.
Pairs pairsIn(const std::string& path, const std::string& pattern)
{
    Pairs pairs;
    for (const auto& match : matches(sourceText(path), pattern)) {
        pairs.emplace(match[0], match[1]);
    }
    return pairs;
}

class MessagesTable : public testing::Test
{
protected:
    Pairs pairs(const std::string& heading, const std::string& key, const std::string& value) const
    {
        Pairs found;
        const DocumentTable& table = document.table(heading, key);
        for (const DocumentTable::Row& row : table.rows) {
            found.emplace(table.cell(row, key), table.cell(row, value));
        }
        return found;
    }

    const MessagesDocument document{MessagesDocument::read()};
};

TEST_F(MessagesTable, HasTheLayoutsOfTheCode)
{
    std::map<std::string, Layout> documented;
    for (const DocumentTable& table : document.tables()) {
        // The width of a ring-buffer record is that of a text.
        if (!table.hasColumn("Offset") || table.heading == "Ring-buffer record") {
            continue;
        }
        for (const DocumentTable::Row& row : table.rows) {
            DocumentTable::Row field;
            for (const std::string& column : COLUMNS) {
                field.push_back(table.cell(row, column));
            }
            documented[table.heading].push_back(field);
        }
    }
    EXPECT_EQ(documented, layouts());
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
