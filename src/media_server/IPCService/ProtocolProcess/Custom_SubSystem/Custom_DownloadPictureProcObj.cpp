#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadPictureProcObj.h"

#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/SharedPtr.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_FaceLibrary.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_HttpParam.h"
#include "media_server/IPCService/Public/ExceptionText.h"
#include "media_server/IPCService/Public/Interruption.h"
#include "media_server/IPCService/Public/MessageExchange.h"
#include "media_server/IPCService/Public/MsgData.h"
#include "media_server/IPCService/Public/ServiceLog.h"

namespace IPCService {
namespace MetaDataGW {

namespace {

constexpr LogSource LOG_SOURCE{"media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadPictureProcObj",
                               1000};

constexpr std::uint32_t IMPORT_FILE_SUB_TYPE = 1;
constexpr std::uint32_t IMPORT_FILE_COUNT = 3;
constexpr std::uint32_t PROGRESS_IMPORTED = 1;
constexpr int POLL_TRIES = 10;
constexpr long POLL_INTERVAL = 1000;  // milliseconds

/// Posts the request. @return true when the platform answered it with 200
bool fetchPage(const DownloadPictureProcParam& page, CustomBaseObj& request, const std::string& uri,
               std::string& response)
{
    std::string body;
    request.Serialize(body);
    LOG(Information, " RegisterProcObj::SendSysObj, ContentData:%s", body.c_str());
    Custom_HttpParam http(page, Poco::Net::HTTPRequest::HTTP_POST, uri, Custom_HttpParam::DEFAULT_CONTENT_TYPE, body);
    const int status = http.SendMsgAndRecvResponse(response);
    LOG(Information, "DownloadPictureProcess Status:%d", status);
    if (status != Poco::Net::HTTPResponse::HTTP_OK) {
        LOG(Information, "[Custom] download picture, response error.");
        return false;
    }
    return true;
}

/// Opens "wb+", but neither waits for the reader of a pipe nor takes a pipe or a link for a file. What is written is on
/// the disk when the call that wrote it returns: a page that ITGT is told of is whole after a power cut, too.
std::FILE* openPageFile(const std::string& path)
{
    constexpr int FLAGS = O_RDWR | O_CREAT | O_TRUNC | O_DSYNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    const int descriptor = ::open(path.c_str(), FLAGS, 0666);
    if (descriptor < 0) {
        return nullptr;
    }
    struct stat status = {};
    const bool isPipe = ::fstat(descriptor, &status) != 0 || S_ISFIFO(status.st_mode);
    std::FILE* file = isPipe ? nullptr : ::fdopen(descriptor, "wb+");
    if (file == nullptr) {
        ::close(descriptor);
    }
    return file;
}

/// Has the names in a folder on the disk, too. Nothing is waited for where the file system cannot do that, or where the
/// folder may be written and not read.
bool syncFolder(const std::string& path)
{
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0) {
        return errno == EACCES;
    }
    const bool synced = ::fsync(descriptor) == 0 || errno == EINVAL;
    ::close(descriptor);
    return synced;
}

/// Writes the platform's answer, up to its first NUL, as a file of the face library. @return false on failure, logged
bool writePageFile(const DownloadPictureProcParam& page, const std::string& fileName, const std::string& response)
{
    const std::string fullPath = FACE_LIBRARY_DIRECTORY + fileName;
    LOG(Information, " startIndex %d ", static_cast<int>(page.startIndex));
    LOG(Information, " Fullfilename %s", fullPath.c_str());
    const bool isNewFolder = ::access(FACE_LIBRARY_DIRECTORY, F_OK) != 0 && ::mkdir(FACE_LIBRARY_DIRECTORY, 0777) == 0;
    std::FILE* file = openPageFile(fullPath);
    if (file == nullptr) {
        LOG(Information, " [Custom] download picture, open file %s error.", fullPath.c_str());
        return false;
    }
    const std::size_t length = ::strnlen(response.data(), response.size());
    const bool written = std::fwrite(response.data(), 1, length, file) == length;
    // A full disk may show only when the file is closed.
    const bool kept = std::fclose(file) == 0 && written && syncFolder(FACE_LIBRARY_DIRECTORY);
    if (!kept || (isNewFolder && !syncFolder(FACE_LIBRARY_DIRECTORY + std::string("..")))) {
        LOG(Information, " [Custom] download picture, write file %s error.", fullPath.c_str());
        return false;
    }
    return true;
}

/// Fetches a page into its file. Its text is gone from memory when this returns: ITGT may take any time to answer.
bool storePage(const DownloadPictureProcParam& page, CustomBaseObj& request, const std::string& uri,
               const std::string& fileName)
{
    std::string response;
    return fetchPage(page, request, uri, response) && writePageFile(page, fileName, response);
}

/// Tells ITGT of a page file and takes its import task id. A reply to something else keeps the page's id.
void notifyItgt(DownloadPictureProcParam& page, const std::string& fileName)
{
    MSG_DATA message{};
    MessageExchange exchange;
    setFaceMsgHeader(message, ITGT_PATH, EXCHANGE_PATH, IMPORT_FILE_SUB_TYPE, CMD_FACE_IMPORT_FILE);
    MsgField::Count::set(message, IMPORT_FILE_COUNT);
    MsgField::ImportFileFlag::set(message, 0);
    MsgField::ImportFileDirectory::set(message, FACE_LIBRARY_DIRECTORY);
    MsgField::ImportFileName::set(message, fileName);
    exchange.send(message);
    LOG(Information, "Before recive msg from itgt");
    const QL_CMD_TYPE command = exchange.receive(message);
    LOG(Information, "after recive msg from itgt");
    if (command == CMD_FACE_IMPORT_FILE) {
        const std::int64_t taskId = MsgField::ImportFileTaskId::get(message);
        LOG(Information, "taskID is %lld", static_cast<long long>(taskId));
        page.importTaskId = taskId;
    }
    LOG(Information, " Notify ITGT result:%d", 0);
}

enum class Progress { Imported, NotReady, OtherCommand };

/// Asks ITGT once how far the page's import is; unless it is done, pauses before the exchange ends.
/// @param message  the message of the previous try: only the fields set here are rewritten
Progress askProgress(const DownloadPictureProcParam& page, MSG_DATA& message)
{
    LOG(Information, "Wait for ITGT message ");
    MessageExchange exchange;
    setFaceMsgHeader(message, ITGT_PATH, EXCHANGE_PATH, 0, CMD_FACE_IMPORT_PROGRESS);
    MsgField::ProgressTaskId::set(message, page.importTaskId);
    LOG(Information, "Task ID is %lld", static_cast<long long>(page.importTaskId));
    const QL_CMD_TYPE command = exchange.exchange(message);
    if (command != CMD_FACE_IMPORT_PROGRESS) {
        Interruption::sleep(POLL_INTERVAL);
        return Progress::OtherCommand;
    }
    LOG(Information, "Current process is %ld / %ld ", static_cast<long>(MsgField::ProgressCurrent::get(message)),
        static_cast<long>(MsgField::ProgressTotal::get(message)));
    if (MsgField::ProgressStatus::get(message) == PROGRESS_IMPORTED) {
        return Progress::Imported;
    }
    LOG(Information, "Not Ready, try ");
    Interruption::sleep(POLL_INTERVAL);
    return Progress::NotReady;
}

/// Waits until ITGT has imported the page or has said "not yet" too often; other answers do not count.
/// @param statePath  set to the state file path of the last reply
/// @return the number of "not yet" answers
int waitForImport(const DownloadPictureProcParam& page, std::string& statePath)
{
    MSG_DATA message{};
    int tries = 0;
    while (tries < POLL_TRIES) {
        const Progress progress = askProgress(page, message);
        if (progress == Progress::Imported) {
            break;
        }
        if (progress == Progress::NotReady) {
            ++tries;
        }
    }
    statePath = MsgField::ProgressStatePath::get(message);
    return tries;
}

int logFailure(const std::string& text)
{
    Interruption::check();
    LOG(Information, "SendSysObj err %s", text.c_str());
    return -1;
}

}  // namespace

int SendSysObj(DownloadPictureProcParam& page, CustomBaseObj& request, const std::string& uri)
{
    try {
        const std::string fileName = PAGE_FILE_PREFIX + std::to_string(page.startIndex);
        if (!storePage(page, request, uri, fileName)) {
            return -1;
        }
        notifyItgt(page, fileName);
        return 0;
    } catch (const std::exception& exc) {
        return logFailure(exceptionText(exc));
    }
}

int DownloadPictureProcess(DownloadPictureProcParam& page)
{
    Poco::SharedPtr<CustomJSONDownloadPictureObj> pRequest(new CustomJSONDownloadPictureObj(page));
    LOG(Information, " DownLoad Picture begin %s.", page.datatime.c_str());
    if (SendSysObj(page, *pRequest, page.ServerUri) != 0) {
        LOG(Information, " DownLoad Picture Fail.");
        return 0;
    }
    LOG(Information, " DownLoad Picture Success.");
    std::string statePath;
    const int tries = waitForImport(page, statePath);
    ReportPageResult(page, statePath.c_str());
    if (tries == POLL_TRIES) {
        LOG(Information, "Tried %d times, Fail!", POLL_TRIES);
    }
    return 1;
}

}  // namespace MetaDataGW
}  // namespace IPCService
