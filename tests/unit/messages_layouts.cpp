#include "messages_layouts.h"

#include <type_traits>
#include <utility>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_CommandHead.h"
#include "media_server/IPCService/Public/MsgData.h"
#include "public/utils/alg_utils/utils_srvfs_eventcache_wire.h"

using namespace EventCacheWire;
using IPCService::MetaDataGW::CommandHead;
namespace MsgField = IPCService::MsgField;

namespace {

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
LayoutField member(const std::string& name, std::size_t offset)
{
    return {"", std::to_string(offset), std::to_string(sizeof(Member)), typeName<Member>(), name};
}

template <typename MessageField>
LayoutField payload(const std::string& direction, const std::string& name)
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

std::vector<Layout> deviceLayouts()
{
    return {{"Subscription header",
             sizeof(SubscriptionHeader),
             {MEMBER(SubscriptionHeader, magic), MEMBER(SubscriptionHeader, unused1), MEMBER(SubscriptionHeader, type),
              MEMBER(SubscriptionHeader, unused2), MEMBER(SubscriptionHeader, unused3),
              MEMBER(SubscriptionHeader, headerLength), MEMBER(SubscriptionHeader, unused4),
              MEMBER(SubscriptionHeader, bodyLength)}},
            {"Subscription body",
             sizeof(SubscriptionBody),
             {MEMBER(SubscriptionBody, unused1), MEMBER(SubscriptionBody, publisherName),
              MEMBER(SubscriptionBody, subscriberTag), MEMBER(SubscriptionBody, unused2)}},
            {"Notification",
             sizeof(NotificationHead),
             {MEMBER(NotificationHead, unused), MEMBER(NotificationHead, noBuffer), MEMBER(NotificationHead, status),
              MEMBER(NotificationHead, descriptorOffset)}},
            {"Buffer descriptor",
             sizeof(BufferDescriptor),
             {MEMBER(BufferDescriptor, identifier), MEMBER(BufferDescriptor, unused), MEMBER(BufferDescriptor, length),
              MEMBER(BufferDescriptor, attribute)}},
            {"Map request",
             sizeof(MapRequest),
             {MEMBER(MapRequest, address), MEMBER(MapRequest, identifier), MEMBER(MapRequest, length),
              MEMBER(MapRequest, attribute)}},
            {"Block header", sizeof(BlockHeader), {MEMBER(BlockHeader, unused), MEMBER(BlockHeader, dataLength)}}};
}

}  // namespace

std::string describe(const LayoutField& field)
{
    const std::string direction = field.direction.empty() ? "" : field.direction + " ";
    return direction + field.name + " " + field.type + " at " + field.offset + ", " + field.width + " wide";
}

bool operator==(const LayoutField& one, const LayoutField& other)
{
    return describe(one) == describe(other);
}

std::vector<Layout> socketLayouts()
{
    return {
        {"Command head",
         sizeof(CommandHead),
         {MEMBER(CommandHead, destPath), MEMBER(CommandHead, srcPath), MEMBER(CommandHead, reserved1),
          MEMBER(CommandHead, tag), MEMBER(CommandHead, reserved2), MEMBER(CommandHead, reserved3),
          MEMBER(CommandHead, bodyLength), MEMBER(CommandHead, reserved4), MEMBER(CommandHead, reserved5),
          MEMBER(CommandHead, reserved6)}},
        {"MSG_DATA",
         sizeof(MSG_DATA),
         {MEMBER(MSG_DATA, destPath), MEMBER(MSG_DATA, srcPath), MEMBER(MSG_DATA, unused1), MEMBER(MSG_DATA, subType),
          MEMBER(MSG_DATA, command), MEMBER(MSG_DATA, unused2), MEMBER(MSG_DATA, module), MEMBER(MSG_DATA, payload)}},
        {"7018 CMD_ALARM_FACE_LIB_SET",
         0,
         {PAYLOAD("request", Count), PAYLOAD("request", ListId), PAYLOAD("request", ListType),
          PAYLOAD("request", ListOnControl), PAYLOAD("request", ListThreshold), PAYLOAD("request", ListName)}},
        {"7019 CMD_FACE_LIB_CLEAR", 0, {PAYLOAD("reply", ClearStatus), PAYLOAD("reply", ClearConfigPath)}},
        {"7020 CMD_FACE_IMPORT_FILE",
         0,
         {PAYLOAD("request", Count), PAYLOAD("request", ImportFileFlag), PAYLOAD("request", ImportFileDirectory),
          PAYLOAD("request", ImportFileName), PAYLOAD("reply", ImportFileTaskId)}},
        {"7021 CMD_FACE_IMPORT_PROGRESS",
         0,
         {PAYLOAD("request", ProgressTaskId), PAYLOAD("reply", ProgressStatus), PAYLOAD("reply", ProgressTotal),
          PAYLOAD("reply", ProgressCurrent), PAYLOAD("reply", ProgressStatePath)}},
        {"7031 CMD_FACE_IMPORT_PAGE", 0, {PAYLOAD("reply", PageTime)}}};
}

std::vector<Layout> layouts()
{
    std::vector<Layout> all = socketLayouts();
    const std::vector<Layout> more = deviceLayouts();
    all.insert(all.end(), more.begin(), more.end());
    return all;
}
