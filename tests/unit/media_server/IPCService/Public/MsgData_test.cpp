#include "media_server/IPCService/Public/MsgData.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <type_traits>

#include "support/raw_bytes.h"

namespace {

namespace MsgField = IPCService::MsgField;

constexpr std::size_t SIZE = 21408;
const std::string ZEROS(SIZE, '\0');

std::string wire(const MSG_DATA& message)
{
    return std::string(reinterpret_cast<const char*>(&message), SIZE);
}

MSG_DATA messageOf(const std::string& bytes)
{
    MSG_DATA message;
    std::memcpy(&message, bytes.data(), SIZE);
    return message;
}

/// Expects that a field writes exactly these bytes at this offset, and reads them back.
template <typename Field, typename Value>
void expectNumber(std::size_t offset, Value value, const std::string& bytes)
{
    static_assert(std::is_same<decltype(Field::get(std::declval<MSG_DATA>())), Value>::value, "width and sign");
    MSG_DATA message{};
    Field::set(message, value);
    std::string expected = ZEROS;
    putText(expected, offset, bytes);
    EXPECT_EQ(wire(message), expected) << "offset " << offset;
    EXPECT_EQ(Field::get(messageOf(expected)), value) << "offset " << offset;
}

/// Expects that a text field takes width - 1 characters at this offset and no more, and is read to its end at most.
template <typename Field>
void expectText(std::size_t offset, std::size_t width)
{
    const std::string longest(width - 1, 't');
    std::string filled(SIZE, 'f');
    MSG_DATA message = messageOf(filled);
    Field::set(message, longest);
    putText(filled, offset, longest + '\0');
    EXPECT_EQ(wire(message), filled) << "offset " << offset;
    EXPECT_EQ(Field::get(message), longest);

    Field::set(message, "short");
    putText(filled, offset, "short" + std::string(width - 5, '\0'));
    EXPECT_EQ(wire(message), filled) << "no byte of the text before stays, offset " << offset;
    EXPECT_EQ(Field::get(message), "short");

    Field::set(message, longest + "t");
    putText(filled, offset, std::string(width, '\0'));
    EXPECT_EQ(wire(message), filled) << "too long, offset " << offset;

    EXPECT_EQ(Field::get(messageOf(std::string(SIZE, 'f'))), std::string(width, 'f')) << "unterminated";
}

TEST(MsgData, Has21408Bytes)
{
    EXPECT_EQ(sizeof(MSG_DATA), 21408U);
    EXPECT_EQ(sizeof(QL_CMD_TYPE), 4U);
    EXPECT_TRUE(std::is_unsigned<std::underlying_type_t<QL_CMD_TYPE>>::value);
    EXPECT_TRUE(std::is_trivially_copyable<MSG_DATA>::value);
    EXPECT_EQ(wire(MSG_DATA{}), ZEROS);
}

TEST(MsgData, CommandCodes)
{
    EXPECT_EQ(static_cast<std::uint32_t>(CMD_CUSTOM_PROTOCOL_READY), 1037U);
    EXPECT_EQ(static_cast<std::uint32_t>(CMD_ALARM_FACE_LIB_SET), 7018U);
    EXPECT_EQ(static_cast<std::uint32_t>(CMD_FACE_LIB_CLEAR), 7019U);
    EXPECT_EQ(static_cast<std::uint32_t>(CMD_FACE_IMPORT_FILE), 7020U);
    EXPECT_EQ(static_cast<std::uint32_t>(CMD_FACE_IMPORT_PROGRESS), 7021U);
    EXPECT_EQ(static_cast<std::uint32_t>(CMD_FACE_IMPORT_PAGE), 7031U);
}

TEST(MsgData, HeaderOfAFaceMessage)
{
    MSG_DATA message{};
    IPCService::setFaceMsgHeader(message, "/tmp/A", "/tmp/CP", 1, CMD_ALARM_FACE_LIB_SET);

    std::string expected = ZEROS;
    putText(expected, 0, "/tmp/A");
    putText(expected, 8, "/tmp/CP");
    putText(expected, 160, bytes("\x01\0\0\0"));
    putText(expected, 164, bytes("\x6A\x1B\0\0"));
    putText(expected, 200, bytes("\x65\0\0\0\0\0\0\0"));
    EXPECT_EQ(wire(message), expected);
}

TEST(MsgData, HeaderLeavesTheRestAsItIs)
{
    MSG_DATA message = messageOf(std::string(SIZE, 'r'));
    IPCService::setMsgHeader(message, "/tmp/A", "/tmp/CU", 4, CMD_CUSTOM_PROTOCOL_READY);

    std::string expected(SIZE, 'r');
    putText(expected, 0, bytes("/tmp/A\0\0"));
    putText(expected, 8, bytes("/tmp/CU\0"));
    putText(expected, 160, bytes("\x04\0\0\0"));
    putText(expected, 164, bytes("\x0D\x04\0\0"));
    EXPECT_EQ(wire(message), expected);
}

TEST(MsgData, NumbersOfFaceListMessages)
{
    expectNumber<MsgField::Count, std::uint32_t>(208, 3, bytes("\x03\0\0\0"));
    expectNumber<MsgField::ListId, std::uint64_t>(216, 0xFFEEDDCCBBAA9988, "\x88\x99\xAA\xBB\xCC\xDD\xEE\xFF");
    expectNumber<MsgField::ListType, std::int32_t>(224, -2, "\xFE\xFF\xFF\xFF");
    expectNumber<MsgField::ListOnControl, std::int32_t>(228, -2147483647 - 1, bytes("\0\0\0\x80"));
    expectNumber<MsgField::ListThreshold, std::int64_t>(232, -3, "\xFD\xFF\xFF\xFF\xFF\xFF\xFF\xFF");
    expectNumber<MsgField::ClearStatus, std::uint32_t>(176, 0x81020304, "\x04\x03\x02\x81");
}

TEST(MsgData, NumbersOfImportMessages)
{
    expectNumber<MsgField::ImportFileFlag, std::uint32_t>(312, 0x0A0B0C0D, "\x0D\x0C\x0B\x0A");
    expectNumber<MsgField::ImportFileTaskId, std::int64_t>(584, -4, "\xFC\xFF\xFF\xFF\xFF\xFF\xFF\xFF");
    expectNumber<MsgField::ProgressTaskId, std::int64_t>(304, 0x0102030405060708, "\x08\x07\x06\x05\x04\x03\x02\x01");
    expectNumber<MsgField::ProgressStatus, std::uint32_t>(312, 1, bytes("\x01\0\0\0"));
    expectNumber<MsgField::ProgressTotal, std::int64_t>(320, -5, "\xFB\xFF\xFF\xFF\xFF\xFF\xFF\xFF");
    expectNumber<MsgField::ProgressCurrent, std::int64_t>(328, -6, "\xFA\xFF\xFF\xFF\xFF\xFF\xFF\xFF");
}

TEST(MsgData, TextsWithinTheirFields)
{
    expectText<MsgField::ListName>(240, 65);
    expectText<MsgField::ImportFileDirectory>(316, 132);
    expectText<MsgField::ImportFileName>(448, 132);
}

TEST(MsgData, TextEndsAtItsNul)
{
    MSG_DATA message{};
    MsgField::ListName::set(message, bytes("guest\0s"));

    std::string expected = ZEROS;
    putText(expected, 240, "guest");
    EXPECT_EQ(wire(message), expected);
}

TEST(MsgData, TextsToTheEndOfTheMessage)
{
    expectText<MsgField::ClearConfigPath>(216, SIZE - 216);
    expectText<MsgField::ProgressStatePath>(336, SIZE - 336);
    expectText<MsgField::PageTime>(304, SIZE - 304);
}

}  // namespace
