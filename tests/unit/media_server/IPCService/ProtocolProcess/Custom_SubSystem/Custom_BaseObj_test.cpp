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

/** The request of a first page with another camera code, as the text between its quotes reads. */
std::string cameraCodeText(const std::string& cameraCode)
{
    DownloadPictureProcParam page = firstPage();
    page.cameraCode = cameraCode;
    const std::string text = requestText(page);
    const std::string begin = "{\n \"cameraCode\" : \"";
    const std::string end = "\",\n \"taskID\" : \"T1\",\n";
    EXPECT_EQ(text.compare(0, begin.size(), begin), 0) << text;
    return text.substr(begin.size(), text.find(end) - begin.size());
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
    DownloadPictureProcParam page = firstPage();
    page.cameraCode = "z";
    page.taskID = "y";
    page.startIndex = 9;
    page.offset = 1;
    page.datatime = "b";
    page.securityCode = "a";
    EXPECT_EQ(requestText(page),
              "{\n \"cameraCode\" : \"z\",\n \"taskID\" : \"y\",\n \"startIndex\" : 9,\n \"offset\" : 1,\n"
              " \"datatime\" : \"b\",\n \"securityCode\" : \"a\"\n}");
}

TEST(CustomJSONDownloadPictureObj, EmptyStringsKeepTheirPlace)
{
    EXPECT_EQ(requestText(DownloadPictureProcParam()),
              "{\n \"cameraCode\" : \"\",\n \"taskID\" : \"\",\n \"startIndex\" : 0,\n \"offset\" : 0,\n"
              " \"datatime\" : \"\",\n \"securityCode\" : \"\"\n}");
}

TEST(CustomJSONDownloadPictureObj, NumbersAreUnsigned32BitDecimals)
{
    DownloadPictureProcParam page = firstPage();
    page.startIndex = 4294967280U;
    page.offset = 2147483648U;
    const std::string text = requestText(page);
    EXPECT_NE(text.find("\n \"startIndex\" : 4294967280,\n \"offset\" : 2147483648,\n"), std::string::npos) << text;
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

TEST(CustomJSONDownloadPictureObj, EscapesQuoteBackslashAndSlash)
{
    EXPECT_EQ(cameraCodeText("a\"b\\c/d"), R"(a\"b\\c\/d)");
}

TEST(CustomJSONDownloadPictureObj, EscapesControlCharacters)
{
    EXPECT_EQ(cameraCodeText("\b\f\n\r\t"), R"(\b\f\n\r\t)");
    EXPECT_EQ(cameraCodeText(std::string("\x01\x1F\0x", 4)), R"(\u0001\u001F\u0000x)");
}

TEST(CustomJSONDownloadPictureObj, PassesUtf8AsItIs)
{
    EXPECT_EQ(cameraCodeText("\xC3\xA4\xE7\x9B\xB8\xF0\x9F\x93\xB7"), "\xC3\xA4\xE7\x9B\xB8\xF0\x9F\x93\xB7");
}

TEST(CustomJSONDownloadPictureObj, KeepsLongText)
{
    const std::string longText(100000, 'x');
    EXPECT_EQ(cameraCodeText(longText), longText);
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
        EXPECT_STREQ(exc.name(), "Custom Obj Create Failed");
        EXPECT_EQ(exc.message(), "Serialize Failed");
        EXPECT_EQ(exc.code(), 0);
        EXPECT_EQ(exc.displayText(), "Custom Obj Create Failed: Serialize Failed");
    }
    EXPECT_EQ(text, "as before");
}

TEST(CustomJSONBaseObj, ItsFailureIsAnExceptionOfTheService)
{
    CustomJSONBaseObj request;
    std::string text;
    EXPECT_THROW(request.Serialize(text), IPCService::IPCServiceException);
    EXPECT_THROW(request.Serialize(text), Poco::ApplicationException);
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
