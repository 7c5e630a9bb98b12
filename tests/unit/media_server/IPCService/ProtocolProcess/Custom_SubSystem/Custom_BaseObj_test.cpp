#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_BaseObj.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>

#include "media_server/IPCService/Public/CustomObjCreateException.h"

using namespace IPCService::MetaDataGW;

namespace {

DownloadPictureProcParam firstPage()
{
    DownloadPictureProcParam page;
    page.cameraCode = "C1";
    page.taskID = "T1";
    page.startIndex = 0;
    page.offset = 30;
    page.datatime = "D1";
    page.securityCode = "S1";
    return page;
}

std::string requestText(const DownloadPictureProcParam& page)
{
    std::string text = "what was there before";
    CustomJSONDownloadPictureObj(page).Serialize(text);
    return text;
}

TEST(CustomJSONDownloadPictureObj, WritesTheFirstPageOfATask)
{
    EXPECT_EQ(requestText(firstPage()),
              "{\n"
              " \"cameraCode\" : \"C1\",\n"
              " \"taskID\" : \"T1\",\n"
              " \"startIndex\" : 0,\n"
              " \"offset\" : 30,\n"
              " \"datatime\" : \"D1\",\n"
              " \"securityCode\" : \"S1\"\n"
              "}");
}

TEST(CustomJSONDownloadPictureObj, KeepsTheOrderWhateverTheValues)
{
    DownloadPictureProcParam page;
    page.cameraCode = "z";
    page.startIndex = 4294967280U;
    page.offset = 2147483648U;
    page.securityCode = "a";
    EXPECT_EQ(requestText(page),
              "{\n \"cameraCode\" : \"z\",\n \"taskID\" : \"\",\n \"startIndex\" : 4294967280,\n"
              " \"offset\" : 2147483648,\n \"datatime\" : \"\",\n \"securityCode\" : \"a\"\n}");
}

TEST(CustomJSONDownloadPictureObj, LeavesOutWhatIsNotForThePlatform)
{
    DownloadPictureProcParam page = firstPage();
    page.ServerIp = "hidden";
    page.ServerPort = 4711;
    page.ServerUri = "/hidden";
    page.ResultUri = "/hidden";
    page.importTaskId = 4711;
    EXPECT_EQ(requestText(page), requestText(firstPage()));
}

TEST(CustomJSONDownloadPictureObj, CopiesItsPage)
{
    auto page = std::make_unique<DownloadPictureProcParam>(firstPage());
    CustomJSONDownloadPictureObj request(*page);
    page.reset();
    std::string text;
    request.Serialize(text);
    EXPECT_EQ(text, requestText(firstPage()));
}

TEST(CustomJSONBaseObj, WithoutAnObjectFailsToSerialise)
{
    CustomJSONBaseObj request;
    std::string text = "as before";
    try {
        request.Serialize(text);
        FAIL() << "no exception";
    } catch (const CustomObjCreateException& exc) {
        EXPECT_EQ(exc.message(), "Serialize Failed");
        EXPECT_EQ(exc.code(), 0);
    }
    EXPECT_EQ(text, "as before");
}

TEST(CustomBaseObj, IsAnAbstractRootThatDestroysWhatDerivesFromIt)
{
    static_assert(std::is_abstract<CustomBaseObj>::value, "only its descendants are requests");
    std::unique_ptr<CustomBaseObj> request = std::make_unique<CustomJSONDownloadPictureObj>(firstPage());
    std::string text;
    request->Serialize(text);
    EXPECT_EQ(text, requestText(firstPage()));
}

TEST(CustomObjTag, NamesTheKeysAsThePlatformSpellsThem)
{
    EXPECT_EQ(CustomObjTag::IPC_SERVER_ID, "cameraCode");
    EXPECT_EQ(CustomObjTag::TASK_ID, "taskID");
    EXPECT_EQ(CustomObjTag::START_INDEX, "startIndex");
    EXPECT_EQ(CustomObjTag::OFFSET, "offset");
    EXPECT_EQ(CustomObjTag::DATA_TIME, "datatime");
    EXPECT_EQ(CustomObjTag::SECURITY_CODE, "securityCode");
}

}  // namespace
