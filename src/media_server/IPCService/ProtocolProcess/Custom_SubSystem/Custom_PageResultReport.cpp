#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PageResultReport.h"

#include <Poco/Dynamic/Var.h>
#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>

#include <exception>
#include <string>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_HttpParam.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PlatformSession.h"
#include "media_server/IPCService/Public/ExceptionText.h"
#include "media_server/IPCService/Public/Interruption.h"
#include "media_server/IPCService/Public/JsonText.h"
#include "media_server/IPCService/Public/MemoryReserve.h"
#include "media_server/IPCService/Public/MessageExchange.h"
#include "media_server/IPCService/Public/MsgData.h"
#include "media_server/IPCService/Public/ServiceLog.h"
#include "media_server/IPCService/Public/WholeFile.h"

namespace IPCService {
namespace MetaDataGW {

namespace {

using Poco::Dynamic::Var;
using Poco::JSON::Array;
using Poco::JSON::Object;

// The records of the report are known under the path of the download process, and most of them by their lines.
constexpr LogSource LOG_SOURCE{"media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadPictureProcObj",
                               2000};

/// Reads the state file. @return false when it cannot be read, which is logged
bool readStateFile(const std::string& path, std::string& text)
{
    switch (readWholeFile(path, text, JsonText::LARGEST_TEXT)) {
        case WholeFileResult::Read:
            return true;
        case WholeFileResult::OpenFailed:
            LOG_AT(Error, 77, " [Custom] download picture, open file %s error.", path.c_str());
            return false;
        case WholeFileResult::SizeFailed:
            LOG_AT(Error, 85, " state file %s error.", path.c_str());
            return false;
        case WholeFileResult::AllocationFailed:
            LOG_AT(Error, 93, " malloc pJsonConfig error.");
            return false;
        case WholeFileResult::ReadFailed:
            break;
    }
    LOG_AT(Error, 100, "fread error.");
    return false;
}

/// Parses the state file. @return an empty value when it holds nothing usable, which is logged
Var parseState(const std::string& text)
{
    Var state;
    try {
        state = JsonText::parse(text);
    } catch (const Poco::Exception& exc) {
        LOG_AT(Error, 118, "parser Err %s ", exc.displayText().c_str());
        return Var();
    }
    if (state.isEmpty()) {
        LOG_AT(Error, 126, "json  is Empty ");
    }
    return state;
}

/// Turns ITGT's result for each picture into the platform's form, in the same order.
/// @throws Poco::Exception at the first picture that lacks a member or has it in a wrong type
Array::Ptr toImportInfo(const Var& state)
{
    const Array::Ptr results = state.extract<Object::Ptr>()->get("TaskResultArry").extract<Array::Ptr>();
    Array::Ptr importInfo = new Array;
    for (unsigned i = 0; i < results->size(); ++i) {
        const Object::Ptr result = results->get(i).extract<Object::Ptr>();
        Object picture;
        picture.set("credentialNumber", JsonText::fromAny(result->get("ID")));
        picture.set("importStatus", result->get("RESULT_TYPE_E").convert<Poco::Int64>());
        importInfo->add(picture);
    }
    return importInfo;
}

/// Reads how the page's import ended. @return null when there is nothing to report, which is logged
Array::Ptr readImportInfo(const std::string& statePath)
{
    std::string text;
    if (!readStateFile(statePath, text)) {
        return nullptr;
    }
    const Var state = parseState(text);
    if (state.isEmpty()) {
        return nullptr;
    }
    try {
        return toImportInfo(state);
    } catch (const Poco::Exception& exc) {
        LOG_AT(Error, 157, "faceresultlist_ary parser Err %s ", exc.displayText().c_str());
        return nullptr;
    }
}

/// Asks ITGT for the time and puts it into the document; a reply to something else leaves the document without it.
void addTime(Object& document)
{
    MSG_DATA message{};
    setFaceMsgHeader(message, ITGT_PATH, EXCHANGE_PATH, 0, CMD_FACE_IMPORT_PAGE);
    if (MessageExchange().exchange(message) != CMD_FACE_IMPORT_PAGE) {
        return;
    }
    const std::string time = MsgField::PageTime::get(message);
    LOG_AT(Information, 182, "picTaskResult Update TIME IS %s", time.c_str());
    document.set("datatime", time);
}

/// The result document. Its members come out sorted by key.
std::string buildDocument(const DownloadPictureProcParam& page, const Array::Ptr& importInfo)
{
    Object::Ptr document = new Object;
    document->set("ImportInfo", importInfo);
    addTime(*document);
    document->set("cameraCode", page.cameraCode);
    document->set("taskID", page.taskID);
    document->set("securityCode", page.securityCode);
    document->set("startIndex", page.startIndex);
    document->set("offset", page.offset);
    LOG_AT(Information, 190, "Finish Task  startIndex %d  offset %d", static_cast<int>(page.startIndex),
           static_cast<int>(page.offset));
    return JsonText::compact(document);
}

void postDocument(const DownloadPictureProcParam& page, const std::string& document)
{
    try {
        const PlatformRequest request{page.ServerIp,
                                      page.ServerPort,
                                      Poco::Net::HTTPRequest::HTTP_POST,
                                      page.ResultUri,
                                      Custom_HttpParam::DEFAULT_CONTENT_TYPE,
                                      false};
        Poco::Net::HTTPResponse response;
        const std::string answer = exchangeWithPlatform(request, document, response);
        LOG_AT(Information, 217, "response status %d ,picTaskResult %s responselen %d",
               static_cast<int>(response.getStatus()), response.getReason().c_str(), static_cast<int>(answer.size()));
    } catch (const std::exception& exc) {
        Interruption::check();
        LOG_AT(Information, 221, "metadata %s", exceptionText(exc).c_str());
    }
}

}  // namespace

void ReportPageResult(const DownloadPictureProcParam& page, const char* statePath)
{
    const JsonText::MemoryReturn memoryReturn;
    try {
        const MemoryReserve reserve = jsonReserve(0);
        const Array::Ptr importInfo = readImportInfo(statePath);
        if (importInfo.isNull()) {
            return;
        }
        const std::string document = buildDocument(page, importInfo);
        LOG_AT(Information, 198, "@@@picTaskResult Update  %s", document.c_str());
        postDocument(page, document);
    } catch (const std::exception& exc) {
        LOG(Error, "ReportPageResult err %s", exceptionText(exc).c_str());
    }
}

}  // namespace MetaDataGW
}  // namespace IPCService
