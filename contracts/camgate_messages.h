#ifndef CAMGATE_MESSAGES_H
#define CAMGATE_MESSAGES_H

/*
 * Every message on the camera's local sockets, and what passes through the event cache, as C99 or C++ structs.
 *
 * Names, meanings and rules are those of messages.md. Numbers are little-endian: a program for another processor swaps
 * them itself. No struct has padding, so that they are the same on 32 and 64 bit, and whole ones may be sent and
 * received; begin with zeros. Texts end at their first NUL, or with their field.
 */

#include <stddef.h>
#include <stdint.h>

#define COMMAND_SOCKET "/tmp/HK"
#define CLIENT_SOCKET "/tmp/KH"
#define EXCHANGE_SOCKET "/tmp/CP"
#define READY_SOCKET "/tmp/CU"
#define ITGT_SOCKET "/tmp/II"
#define FACE_LIBRARY_SOCKET "/tmp/A"
#define EVENT_NODE "/mnt/srvfs/event.paas.olv"

/* Commands and replies: this head is one datagram, the JSON text behind it the next one. */
typedef struct CommandHead
{
    char destPath[8];
    char srcPath[8];
    uint8_t reserved1[224];
    uint32_t tag;
    uint32_t reserved2;
    uint8_t reserved3[8];
    uint32_t bodyLength;
    uint32_t reserved4;
    uint32_t reserved5;
    uint8_t reserved6[12];
} CommandHead;

/* The commands of MSG_DATA. */
enum {
    CMD_CUSTOM_PROTOCOL_READY = 1037,
    CMD_ALARM_FACE_LIB_SET = 7018,
    CMD_FACE_LIB_CLEAR = 7019,
    CMD_FACE_IMPORT_FILE = 7020,
    CMD_FACE_IMPORT_PROGRESS = 7021,
    CMD_FACE_IMPORT_PAGE = 7031
};

/* The message to and from ITGT and the face-library process; below, the same with the fields of each command. */
typedef struct MSG_DATA
{
    char destPath[8];
    char srcPath[8];
    uint8_t unused1[144];
    uint32_t subType;
    uint32_t command;
    uint8_t unused2[32];
    int64_t module;
    uint8_t payload[21200];
} MSG_DATA;

#define MSG_DATA_ADDRESSES \
    char destPath[8];      \
    char srcPath[8];       \
    uint8_t unused1[144];  \
    uint32_t subType;      \
    uint32_t command
#define MSG_DATA_HEADER  \
    MSG_DATA_ADDRESSES;  \
    uint8_t unused2[32]; \
    int64_t module

typedef struct AlarmFaceLibSetRequest
{
    MSG_DATA_HEADER;
    uint32_t Count;
    uint8_t unused3[4];
    uint64_t ListId;
    int32_t ListType;
    int32_t ListOnControl;
    int64_t ListThreshold;
    char ListName[65];
    uint8_t unused4[21103];
} AlarmFaceLibSetRequest;

typedef struct FaceLibClearReply
{
    MSG_DATA_ADDRESSES;
    uint8_t unused2[8];
    uint32_t ClearStatus;
    uint8_t unused3[20];
    int64_t module;
    uint8_t unused4[8];
    char ClearConfigPath[21192];
} FaceLibClearReply;

typedef struct FaceImportFileRequest
{
    MSG_DATA_HEADER;
    uint32_t Count;
    uint8_t unused3[100];
    uint32_t ImportFileFlag;
    char ImportFileDirectory[132];
    char ImportFileName[132];
    uint8_t unused4[20828];
} FaceImportFileRequest;

typedef struct FaceImportFileReply
{
    MSG_DATA_HEADER;
    uint8_t unused3[376];
    int64_t ImportFileTaskId;
    uint8_t unused4[20816];
} FaceImportFileReply;

typedef struct FaceImportProgressRequest
{
    MSG_DATA_HEADER;
    uint8_t unused3[96];
    int64_t ProgressTaskId;
    uint8_t unused4[21096];
} FaceImportProgressRequest;

typedef struct FaceImportProgressReply
{
    MSG_DATA_HEADER;
    uint8_t unused3[104];
    uint32_t ProgressStatus;
    uint8_t unused4[4];
    int64_t ProgressTotal;
    int64_t ProgressCurrent;
    char ProgressStatePath[21072];
} FaceImportProgressReply;

typedef struct FaceImportPageReply
{
    MSG_DATA_HEADER;
    uint8_t unused3[96];
    char PageTime[21104];
} FaceImportPageReply;

/* The event cache. */
#define SUBSCRIPTION_MAGIC 0x5331
#define SUBSCRIPTION_TYPE 2
#define STATUS_SUCCESS 200
#define LONGEST_NOTIFICATION 256
#define MAP_REQUEST 0x80100701
#define OLD_PRODUCER_GAP 8

typedef struct SubscriptionHeader
{
    uint16_t magic;
    uint8_t unused1;
    uint8_t type;
    uint16_t unused2;
    uint16_t unused3;
    uint16_t headerLength;
    uint16_t unused4;
    uint32_t bodyLength;
} SubscriptionHeader;

typedef struct SubscriptionBody
{
    uint8_t unused1[16];
    char publisherName[16];
    char subscriberTag[16];
    uint8_t unused2[240];
} SubscriptionBody;

typedef struct NotificationHead
{
    uint8_t unused[4];
    uint16_t noBuffer;
    uint16_t status;
    uint16_t descriptorOffset;
} NotificationHead;

typedef struct BufferDescriptor
{
    uint32_t identifier;
    uint32_t unused;
    uint32_t length;
    uint32_t attribute;
} BufferDescriptor;

typedef struct MapRequest
{
    uint32_t address;
    uint32_t identifier;
    uint32_t length;
    uint32_t attribute;
} MapRequest;

typedef struct BlockHeader
{
    uint8_t unused[52];
    uint32_t dataLength;
} BlockHeader;

/* What no compiler may change: it fails here when an array would have a negative length. */
#define CAMGATE_SIZE(type, bytes) typedef char camgate_size_of_##type[sizeof(type) == (bytes) ? 1 : -1]
#define CAMGATE_OFFSET(type, field, bytes) \
    typedef char camgate_offset_of_##type##_##field[offsetof(type, field) == (bytes) ? 1 : -1]

CAMGATE_SIZE(CommandHead, 280);
CAMGATE_OFFSET(CommandHead, srcPath, 8);
CAMGATE_OFFSET(CommandHead, tag, 240);
CAMGATE_OFFSET(CommandHead, bodyLength, 256);
CAMGATE_SIZE(MSG_DATA, 21408);
CAMGATE_OFFSET(MSG_DATA, subType, 160);
CAMGATE_OFFSET(MSG_DATA, command, 164);
CAMGATE_OFFSET(MSG_DATA, module, 200);
CAMGATE_OFFSET(MSG_DATA, payload, 208);
CAMGATE_SIZE(AlarmFaceLibSetRequest, 21408);
CAMGATE_OFFSET(AlarmFaceLibSetRequest, Count, 208);
CAMGATE_OFFSET(AlarmFaceLibSetRequest, ListId, 216);
CAMGATE_OFFSET(AlarmFaceLibSetRequest, ListType, 224);
CAMGATE_OFFSET(AlarmFaceLibSetRequest, ListOnControl, 228);
CAMGATE_OFFSET(AlarmFaceLibSetRequest, ListThreshold, 232);
CAMGATE_OFFSET(AlarmFaceLibSetRequest, ListName, 240);
CAMGATE_SIZE(FaceLibClearReply, 21408);
CAMGATE_OFFSET(FaceLibClearReply, ClearStatus, 176);
CAMGATE_OFFSET(FaceLibClearReply, ClearConfigPath, 216);
CAMGATE_SIZE(FaceImportFileRequest, 21408);
CAMGATE_OFFSET(FaceImportFileRequest, Count, 208);
CAMGATE_OFFSET(FaceImportFileRequest, ImportFileFlag, 312);
CAMGATE_OFFSET(FaceImportFileRequest, ImportFileDirectory, 316);
CAMGATE_OFFSET(FaceImportFileRequest, ImportFileName, 448);
CAMGATE_SIZE(FaceImportFileReply, 21408);
CAMGATE_OFFSET(FaceImportFileReply, ImportFileTaskId, 584);
CAMGATE_SIZE(FaceImportProgressRequest, 21408);
CAMGATE_OFFSET(FaceImportProgressRequest, ProgressTaskId, 304);
CAMGATE_SIZE(FaceImportProgressReply, 21408);
CAMGATE_OFFSET(FaceImportProgressReply, ProgressStatus, 312);
CAMGATE_OFFSET(FaceImportProgressReply, ProgressTotal, 320);
CAMGATE_OFFSET(FaceImportProgressReply, ProgressCurrent, 328);
CAMGATE_OFFSET(FaceImportProgressReply, ProgressStatePath, 336);
CAMGATE_SIZE(FaceImportPageReply, 21408);
CAMGATE_OFFSET(FaceImportPageReply, PageTime, 304);
CAMGATE_SIZE(SubscriptionHeader, 16);
CAMGATE_OFFSET(SubscriptionHeader, type, 3);
CAMGATE_OFFSET(SubscriptionHeader, headerLength, 8);
CAMGATE_OFFSET(SubscriptionHeader, bodyLength, 12);
CAMGATE_SIZE(SubscriptionBody, 288);
CAMGATE_OFFSET(SubscriptionBody, publisherName, 16);
CAMGATE_OFFSET(SubscriptionBody, subscriberTag, 32);
CAMGATE_SIZE(NotificationHead, 10);
CAMGATE_OFFSET(NotificationHead, noBuffer, 4);
CAMGATE_OFFSET(NotificationHead, status, 6);
CAMGATE_OFFSET(NotificationHead, descriptorOffset, 8);
CAMGATE_SIZE(BufferDescriptor, 16);
CAMGATE_OFFSET(BufferDescriptor, length, 8);
CAMGATE_OFFSET(BufferDescriptor, attribute, 12);
CAMGATE_SIZE(MapRequest, 16);
CAMGATE_OFFSET(MapRequest, identifier, 4);
CAMGATE_OFFSET(MapRequest, length, 8);
CAMGATE_OFFSET(MapRequest, attribute, 12);
CAMGATE_SIZE(BlockHeader, 56);
CAMGATE_OFFSET(BlockHeader, dataLength, 52);

#undef MSG_DATA_ADDRESSES
#undef MSG_DATA_HEADER
#undef CAMGATE_SIZE
#undef CAMGATE_OFFSET

#endif
