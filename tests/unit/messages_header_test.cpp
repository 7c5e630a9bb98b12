#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "messages_layout.h"

/// A program's own C header, beside the service's own types of the same names in other tests.
namespace contract {
#include "camgate_messages.h"
}

// contracts/camgate_messages.h against docs/messages.md, whose tables messages_table_test.cpp holds against the code.

using namespace contract;

namespace {

/// The field of a message of some command.
#define FIELD(direction, Struct, name) in(direction, MEMBER(Struct, name))

DocumentTable::Row in(const std::string& direction, DocumentTable::Row row)
{
    row.front() = direction;
    return row;
}

/// The layouts of the header, by the heading of their table.
std::map<std::string, Layout> layouts()
{
    std::map<std::string, Layout> all = {
#include "messages_structs.inc"
    };
    all.insert({
        {"7018 CMD_ALARM_FACE_LIB_SET",
         {FIELD("request", AlarmFaceLibSetRequest, Count), FIELD("request", AlarmFaceLibSetRequest, ListId),
          FIELD("request", AlarmFaceLibSetRequest, ListType), FIELD("request", AlarmFaceLibSetRequest, ListOnControl),
          FIELD("request", AlarmFaceLibSetRequest, ListThreshold), FIELD("request", AlarmFaceLibSetRequest, ListName)}},
        {"7019 CMD_FACE_LIB_CLEAR",
         {FIELD("reply", FaceLibClearReply, ClearStatus), FIELD("reply", FaceLibClearReply, ClearConfigPath)}},
        {"7020 CMD_FACE_IMPORT_FILE",
         {FIELD("request", FaceImportFileRequest, Count), FIELD("request", FaceImportFileRequest, ImportFileFlag),
          FIELD("request", FaceImportFileRequest, ImportFileDirectory),
          FIELD("request", FaceImportFileRequest, ImportFileName),
          FIELD("reply", FaceImportFileReply, ImportFileTaskId)}},
        {"7021 CMD_FACE_IMPORT_PROGRESS",
         {FIELD("request", FaceImportProgressRequest, ProgressTaskId),
          FIELD("reply", FaceImportProgressReply, ProgressStatus),
          FIELD("reply", FaceImportProgressReply, ProgressTotal),
          FIELD("reply", FaceImportProgressReply, ProgressCurrent),
          FIELD("reply", FaceImportProgressReply, ProgressStatePath)}},
        {"7031 CMD_FACE_IMPORT_PAGE", {FIELD("reply", FaceImportPageReply, PageTime)}},
    });
    return all;
}

using MessagesHeader = MessagesTable;

TEST_F(MessagesHeader, HasTheDocumentedLayouts)
{
    EXPECT_EQ(layouts(), documented());
}

template <typename Message>
void expectWholeMessage()
{
    EXPECT_EQ(sizeof(Message), sizeof(MSG_DATA));
    EXPECT_EQ(offsetof(Message, srcPath), offsetof(MSG_DATA, srcPath));
    EXPECT_EQ(offsetof(Message, subType), offsetof(MSG_DATA, subType));
    EXPECT_EQ(offsetof(Message, command), offsetof(MSG_DATA, command));
    EXPECT_EQ(offsetof(Message, module), offsetof(MSG_DATA, module));
}

TEST_F(MessagesHeader, HasWholeMessagesWithTheHeadThatAllHave)
{
    expectWholeMessage<AlarmFaceLibSetRequest>();
    expectWholeMessage<FaceLibClearReply>();
    expectWholeMessage<FaceImportFileRequest>();
    expectWholeMessage<FaceImportFileReply>();
    expectWholeMessage<FaceImportProgressRequest>();
    expectWholeMessage<FaceImportProgressReply>();
    expectWholeMessage<FaceImportPageReply>();
}

TEST_F(MessagesHeader, HasTheDocumentedCodesAndConstants)
{
    const std::string header = "contracts/camgate_messages.h";
    EXPECT_EQ(pairsIn(header, R"((CMD_\w+) = (\d+))"), pairs("Message codes", "Name", "Command"));
    EXPECT_EQ(pairsIn(header, R"(#define ([A-Z_]+) (\d\w*))"), pairs("Event cache", "Constant", "Value"));
}

}  // namespace
