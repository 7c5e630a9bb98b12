#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/ready_service.h"
#include "media_server/IPCService/Public/JsonText.h"
#include "messages_document.h"
#include "public/utils/alg_utils/utils_srvfs_eventcache.h"
#include "support/event_cache.h"
#include "support/fake_platform.h"
#include "support/raw_bytes.h"
#include "support/scripted_peer.h"
#include "support/temp_folder.h"
#include "support/tls_server.h"
#include "support/unix_socket.h"
#include "support/waiting.h"

// The examples of docs/messages.md against the running code: each command of the document is sent, and every
// message that the service answers with has to be as the document says. Offsets come from its tables.

namespace {

constexpr std::uint32_t TAG = 0xCAFE0123;
constexpr char PLATFORM[] = "127.0.0.1:8443";  // as the examples name it

class MessagesExamples : public testing::Test
{
protected:
    std::size_t offsetOf(const std::string& heading, const std::string& field) const
    {
        const DocumentTable& table = m_document.table(heading, "Offset");
        return std::stoul(table.cell(table.rowWith("Field", field), "Offset"));
    }

    std::size_t sizeOf(const std::string& name) const
    {
        const DocumentTable& table = m_document.table("Sizes", "Struct");
        return std::stoul(table.cell(table.rowWith("Struct", name), "Bytes"));
    }

    /// An empty message of a command, as its peer would send it.
    std::string replyTo(const std::string& request) const
    {
        std::string reply(sizeOf("MSG_DATA"), '\0');
        putNumber(reply, offsetOf("MSG_DATA", "command"), codeOf(request));
        return reply;
    }

    std::uint32_t codeOf(const std::string& message) const
    {
        return numberAt<std::uint32_t>(message, offsetOf("MSG_DATA", "command"));
    }

    /// Sends a command of the document and takes its reply, which has to be as documented.
    void command(const std::string& body)
    {
        std::string head(sizeOf("CommandHead"), '\0');
        putText(head, 0, "/tmp/HK");
        putNumber(head, offsetOf("Command head", "tag"), TAG);
        putNumber(head, offsetOf("Command head", "bodyLength"), static_cast<std::uint32_t>(body.size()));
        ASSERT_TRUE(m_client.send("/tmp/HK", head) && m_client.send("/tmp/HK", body));

        const std::optional<std::string> replyHead = m_client.receive();
        const std::optional<std::string> replyBody = m_client.receive();
        ASSERT_TRUE(replyHead && replyBody);
        EXPECT_EQ(*replyBody, m_document.example("Reply body"));
        ASSERT_EQ(replyHead->size(), sizeOf("CommandHead"));
        EXPECT_EQ(textAt(*replyHead, offsetOf("Command head", "destPath")), "/tmp/KH");
        EXPECT_EQ(textAt(*replyHead, offsetOf("Command head", "srcPath")), "/tmp/HK");
        EXPECT_EQ(numberAt<std::uint32_t>(*replyHead, offsetOf("Command head", "tag")), TAG);
        EXPECT_EQ(numberAt<std::uint32_t>(*replyHead, offsetOf("Command head", "bodyLength")), replyBody->size());
        for (const std::string field : {"reserved2", "reserved4", "reserved5"}) {
            EXPECT_EQ(numberAt<std::uint32_t>(*replyHead, offsetOf("Command head", field)), 0U) << field;
        }
    }

    /// Holds a request against the tables: header and constants as they say, and no other byte set.
    void expectAsDocumented(std::string message) const
    {
        ASSERT_EQ(message.size(), sizeOf("MSG_DATA"));
        const std::string code = std::to_string(codeOf(message));
        const DocumentTable& codes = m_document.table("Message codes", "Command");
        const DocumentTable::Row& row = codes.rowWith("Command", code);
        EXPECT_EQ(textAt(message, offsetOf("MSG_DATA", "destPath")), codes.cell(row, "To"));
        EXPECT_EQ(textAt(message, offsetOf("MSG_DATA", "srcPath")), codes.cell(row, "From"));
        EXPECT_EQ(std::to_string(numberAt<std::uint32_t>(message, offsetOf("MSG_DATA", "subType"))),
                  codes.cell(row, "subType"));
        EXPECT_EQ(std::to_string(numberAt<std::int64_t>(message, offsetOf("MSG_DATA", "module"))),
                  codes.cell(row, "module"));
        const DocumentTable& payload = m_document.table(code + " " + codes.cell(row, "Name"), "Offset");
        expectConstants(payload, "request", message);
        clear(m_document.table("MSG_DATA", "Offset"), "", message);
        clear(payload, "request", message);
        EXPECT_EQ(message.find_first_not_of('\0'), std::string::npos)
            << code << " has a byte set that is not documented";
    }

    /// Holds the fields whose meaning is a number or a path against it.
    static void expectConstants(const DocumentTable& table, const std::string& direction, const std::string& message)
    {
        for (const DocumentTable::Row& row : table.rows) {
            const std::string meaning = table.cell(row, "Meaning");
            const std::size_t offset = std::stoul(table.cell(row, "Offset"));
            if (table.cell(row, "In") != direction || meaning.empty()) {
                continue;
            }
            if (meaning.front() == '/') {
                EXPECT_EQ(textAt(message, offset), meaning);
            } else if (meaning.find_first_not_of("0123456789") == std::string::npos) {
                EXPECT_EQ(numberAt<std::uint32_t>(message, offset), std::stoul(meaning)) << table.heading;
            }
        }
    }

    /// Zeroes the fields of a table but those that carry nothing.
    static void clear(const DocumentTable& table, const std::string& direction, std::string& message)
    {
        for (const DocumentTable::Row& row : table.rows) {
            if (table.cell(row, "In") == direction && table.cell(row, "Type").find("bytes") == std::string::npos) {
                const std::size_t width = std::stoul(table.cell(row, "Width"));
                message.replace(std::stoul(table.cell(row, "Offset")), width, width, '\0');
            }
        }
    }

    /// Holds a request of 7018 against the list that it sets.
    void expectList(const Poco::JSON::Object& list, const std::string& message) const
    {
        const DocumentTable& keys = m_document.table("FaceListsArry", "Field");
        for (const DocumentTable::Row& row : keys.rows) {
            const std::size_t offset = offsetOf("7018 CMD_ALARM_FACE_LIB_SET", keys.cell(row, "Field"));
            const Poco::Dynamic::Var value = list.get(keys.cell(row, "Key"));
            const std::string type = keys.cell(row, "Type");
            if (type == "u64") {
                EXPECT_EQ(numberAt<std::uint64_t>(message, offset), value.convert<std::uint64_t>());
            } else if (type == "i64") {
                EXPECT_EQ(numberAt<std::int64_t>(message, offset), value.convert<std::int64_t>());
            } else if (type == "i32") {
                EXPECT_EQ(numberAt<std::int32_t>(message, offset), value.convert<std::int32_t>());
            } else {
                EXPECT_EQ(textAt(message, offset), value.convert<std::string>());
            }
        }
    }

    /// Holds every field of a table against what its meaning begins or ends with: a number, a text, or nothing.
    void expectFields(const std::string& heading, const std::string& message) const
    {
        const DocumentTable& table = m_document.table(heading, "Offset");
        ASSERT_FALSE(table.rows.empty()) << heading;
        for (const DocumentTable::Row& row : table.rows) {
            const std::string field =
                message.substr(std::stoul(table.cell(row, "Offset")), std::stoul(table.cell(row, "Width")));
            const std::string meaning = table.cell(row, "Meaning");
            if (table.cell(row, "Type").front() == 'u') {
                std::uint64_t number = 0;
                std::copy(field.begin(), field.end(), reinterpret_cast<char*>(&number));
                EXPECT_EQ(number, std::stoul(meaning, nullptr, 0)) << table.cell(row, "Field");
            } else if (table.cell(row, "Type").front() == 'c') {
                EXPECT_THAT(meaning, testing::HasSubstr(textAt(field, 0) + ";"));
                EXPECT_EQ(field.find_first_not_of('\0', textAt(field, 0).size()), std::string::npos);
            } else {
                EXPECT_EQ(field.find_first_not_of('\0'), std::string::npos) << table.cell(row, "Field");
            }
        }
    }

    /// An example with the server's real port.
    static std::string withPort(std::string example, std::uint16_t port)
    {
        const std::string real = "127.0.0.1:" + std::to_string(port);
        for (std::size_t at = 0; (at = example.find(PLATFORM, at)) != std::string::npos; at += real.size()) {
            example.replace(at, sizeof(PLATFORM) - 1, real);
        }
        return example;
    }

    /// An example of HTTP as it is on the wire.
    static std::string onTheWire(const std::string& example)
    {
        std::string text;
        const std::size_t headerEnd = example.find("\n\n");
        for (std::size_t i = 0; i < example.size(); ++i) {
            text += example[i] == '\n' && i <= headerEnd + 1 ? "\r\n" : example.substr(i, 1);
        }
        return text;
    }

    /// ITGT, which imports each page at once.
    std::string itgtAnswer(const std::string& request, const std::string& statePath) const
    {
        std::string reply = replyTo(request);
        switch (codeOf(request)) {
            case 7020:
                putNumber<std::int64_t>(reply, offsetOf("7020 CMD_FACE_IMPORT_FILE", "ImportFileTaskId"), -77);
                return reply;
            case 7021:
                EXPECT_EQ(numberAt<std::int64_t>(request, offsetOf("7021 CMD_FACE_IMPORT_PROGRESS", "ProgressTaskId")),
                          -77);
                putNumber<std::uint32_t>(reply, offsetOf("7021 CMD_FACE_IMPORT_PROGRESS", "ProgressStatus"), 1);
                putText(reply, offsetOf("7021 CMD_FACE_IMPORT_PROGRESS", "ProgressStatePath"), statePath);
                return reply;
            case 7031:
                putText(reply, offsetOf("7031 CMD_FACE_IMPORT_PAGE", "PageTime"), "2024-05-17 08:30:00");
                return reply;
            default:
                return "";
        }
    }

    const MessagesDocument m_document{MessagesDocument::read()};
    const TempFolder m_folder;
    UnixSocket m_client{"/tmp/KH"};
};

TEST_F(MessagesExamples, DownloadOfAPage)
{
    const std::string statePath = m_folder.write("state", m_document.example("TaskResultArry"));
    std::filesystem::create_directories("/tmp/mmcblk0/face_basic");
    const std::string page = m_document.example("Page and page file");
    const TlsServer platform(always(httpAnswer(page)));
    const ScriptedPeer itgt("/tmp/II", [&](const std::string& request) { return itgtAnswer(request, statePath); });
    ReadyService service;

    command(withPort(m_document.example("whiteListDown"), platform.port()));
    ASSERT_TRUE(eventually([&] { return platform.requests().size() == 2; }));
    for (const std::string heading : {"Page request", "Task-result report"}) {
        EXPECT_THAT(platform.requests(),
                    testing::Contains(onTheWire(withPort(m_document.example(heading), platform.port()))));
    }
    std::ifstream file("/tmp/mmcblk0/face_basic/faceLib/white0", std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), page);

    std::vector<std::uint32_t> codes;
    for (const std::string& request : itgt.requests()) {
        expectAsDocumented(request);
        codes.push_back(codeOf(request));
    }
    EXPECT_THAT(codes, testing::ElementsAre(1037, 7020, 7021, 7031));
    EXPECT_EQ(textAt(itgt.requests(7020).at(0), offsetOf("7020 CMD_FACE_IMPORT_FILE", "ImportFileName")), "white0");
}

TEST_F(MessagesExamples, FaceListsSetAnew)
{
    const std::string configuration = m_document.example("FaceListsArry");
    const std::string path = m_folder.write("lists", configuration);
    const ScriptedPeer faceLibrary("/tmp/A", [&](const std::string& request) {
        std::string reply = request;
        if (codeOf(request) == 7019) {
            putText(reply, offsetOf("7019 CMD_FACE_LIB_CLEAR", "ClearConfigPath"), path);
        }
        return reply;
    });
    ReadyService service;
    command(m_document.example("whiteListClear"));

    const Poco::JSON::Array::Ptr lists =
        IPCService::JsonText::parse(configuration).extract<Poco::JSON::Object::Ptr>()->getArray("FaceListsArry");
    const std::vector<std::string> requests = faceLibrary.requests();
    ASSERT_EQ(requests.size(), lists->size() + 1);
    EXPECT_EQ(codeOf(requests[0]), 7019U);
    expectAsDocumented(requests[0]);
    for (unsigned i = 0; i < lists->size(); ++i) {
        expectAsDocumented(requests[i + 1]);
        expectList(*lists->getObject(i), requests[i + 1]);
    }
}

TEST_F(MessagesExamples, FaceThatHitNoList)
{
    ReadyService service;
    command(m_document.example("faceNotHitDown"));
    ASSERT_EQ(FakePlatform::sent().size(), 1U);
    const std::string text = m_document.example("Ring-buffer record");
    EXPECT_EQ(FakePlatform::sent()[0].record, text + '\0');

    const DocumentTable& table = m_document.table("Ring-buffer record", "Offset");
    const std::vector<DocumentTable::Row> places = {{"0", "n", "text"}, {"n", "1", "u8"}};
    ASSERT_EQ(table.rows.size(), places.size());
    for (std::size_t i = 0; i < places.size(); ++i) {
        EXPECT_EQ(DocumentTable::Row(table.rows[i].begin(), table.rows[i].begin() + 3), places[i]);
    }
    const std::string document = MessagesDocument::read();
    EXPECT_THAT(document, testing::HasSubstr("ring buffer `" + FakePlatform::opened().at(0).name + "`"));
    EXPECT_THAT(document, testing::HasSubstr("(" + std::to_string(FakePlatform::opened().at(0).size) + " bytes, flag " +
                                             std::to_string(FakePlatform::sent()[0].flag) + ")"));
}

TEST_F(MessagesExamples, Subscription)
{
    const EventCache cache;
    EventCacheHndl handle = {};
    ASSERT_EQ(Utils_EventCacheSubscribe(&handle, "gate.saas.olv", nullptr), 0);
    ::close(handle.nEventFd);
    const std::string record = cache.packet();
    ASSERT_EQ(record.size(), sizeOf("SubscriptionHeader") + sizeOf("SubscriptionBody"));

    expectFields("Subscription header", record.substr(0, sizeOf("SubscriptionHeader")));
    expectFields("Subscription body", record.substr(sizeOf("SubscriptionHeader")));
}

TEST_F(MessagesExamples, ReplyAsBytes)
{
    const std::string text = m_document.example("Reply body");
    std::string hex;
    for (const char character : text) {
        static constexpr char DIGITS[] = "0123456789abcdef";
        hex += {' ', DIGITS[character >> 4], DIGITS[character & 0x0F]};
    }
    EXPECT_THAT(MessagesDocument::read(), testing::HasSubstr("As bytes: `" + hex.substr(1) + "`"));
    EXPECT_THAT(MessagesDocument::read(), testing::HasSubstr(std::to_string(text.size()) + " bytes in all"));
}

}  // namespace
