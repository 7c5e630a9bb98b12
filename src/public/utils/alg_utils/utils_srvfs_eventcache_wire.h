#ifndef ALG_UTILS_UTILS_SRVFS_EVENTCACHE_WIRE_H
#define ALG_UTILS_UTILS_SRVFS_EVENTCACHE_WIRE_H

#include <sys/ioctl.h>

#include <cstddef>
#include <cstdint>

/// What passes between this process, the event service node and the cache driver. Little-endian, as the camera.
/// Magic, type, attribute and the unused bytes belong to the service and the driver.
namespace EventCacheWire {

constexpr std::uint16_t SUBSCRIPTION_MAGIC = 0x5331;
constexpr std::uint8_t SUBSCRIPTION_TYPE = 2;

/// First part of the subscription record on the event node.
struct SubscriptionHeader
{
    std::uint16_t magic;
    std::uint8_t unused1;
    std::uint8_t type;  ///< low 7 bits
    std::uint16_t unused2;
    std::uint16_t unused3;
    std::uint16_t headerLength;
    std::uint16_t unused4;
    std::uint32_t bodyLength;
};
static_assert(sizeof(SubscriptionHeader) == 16, "wire size");
static_assert(offsetof(SubscriptionHeader, type) == 3, "wire offset");
static_assert(offsetof(SubscriptionHeader, headerLength) == 8, "wire offset");
static_assert(offsetof(SubscriptionHeader, bodyLength) == 12, "wire offset");

/// Second part of the subscription record.
struct SubscriptionBody
{
    std::uint8_t unused1[16];
    char publisherName[16];
    char subscriberTag[16];
    std::uint8_t unused2[240];
};
static_assert(sizeof(SubscriptionBody) == 288, "wire size");
static_assert(offsetof(SubscriptionBody, publisherName) == 16, "wire offset");
static_assert(offsetof(SubscriptionBody, subscriberTag) == 32, "wire offset");

/// Head of a notification read from the event node.
struct NotificationHead
{
    std::uint8_t unused[4];
    std::uint16_t noBuffer;  ///< non-zero: there is nothing to fetch
    std::uint16_t status;    ///< 200: success
    std::uint16_t descriptorOffset;
};
static_assert(offsetof(NotificationHead, noBuffer) == 4, "wire offset");
static_assert(offsetof(NotificationHead, status) == 6, "wire offset");
static_assert(offsetof(NotificationHead, descriptorOffset) == 8, "wire offset");

/// Where a notification says its buffer is.
struct BufferDescriptor
{
    std::uint32_t identifier;
    std::uint32_t unused;
    std::uint32_t length;     ///< bytes to map
    std::uint32_t attribute;  ///< the driver's own
};
static_assert(sizeof(BufferDescriptor) == 16, "wire size");
static_assert(offsetof(BufferDescriptor, length) == 8, "wire offset");
static_assert(offsetof(BufferDescriptor, attribute) == 12, "wire offset");

/// Argument of the cache driver's map request.
struct MapRequest
{
    std::uint32_t address;  ///< set by the driver
    std::uint32_t identifier;
    std::uint32_t length;
    std::uint32_t attribute;
};
static_assert(sizeof(MapRequest) == 16, "wire size");
constexpr unsigned long MAP_REQUEST = 0x80100701;
static_assert(_IOR(7, 1, MapRequest) == MAP_REQUEST, "direction read, type 7, number 1, size 16");

/// What a mapped buffer begins with; the data follow.
struct BlockHeader
{
    std::uint8_t unused[52];
    std::uint32_t dataLength;
};
static_assert(sizeof(BlockHeader) == 56, "wire size");
static_assert(offsetof(BlockHeader, dataLength) == 52, "wire offset");

/// Most that a notification has.
constexpr std::size_t LONGEST_NOTIFICATION = 256;  // bytes
constexpr std::uint16_t STATUS_SUCCESS = 200;

/// Producers older than version 8.0.1 put these bytes between the block header and the data.
constexpr std::uint32_t OLD_PRODUCER_GAP = 8;

}  // namespace EventCacheWire

#endif
