#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonMsgLoop.h"

#include <Poco/Exception.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <iterator>
#include <memory>
#include <new>

#include "bounds_checked.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_CommandHead.h"
#include "media_server/IPCService/Public/ExceptionText.h"
#include "media_server/IPCService/Public/IPCUnixTransmitter.h"
#include "media_server/IPCService/Public/JsonText.h"
#include "media_server/IPCService/Public/MemoryReserve.h"
#include "media_server/IPCService/Public/ServiceLog.h"

namespace IPCService {
namespace MetaDataGW {

namespace {

using Poco::Dynamic::Var;
using Poco::JSON::Object;

constexpr LogSource LOG_SOURCE{"media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonMsgLoop"};

constexpr char TASK_NAME[] = "Json Msg Loop";
constexpr int ATTEMPTS = 3;
constexpr long ATTEMPT_PAUSE = 10;  // milliseconds
constexpr unsigned REPLY_BLANKS = 2;

const std::string taskName = "taskName";
const std::string taskInfo = "taskInfo";

constexpr char JSON_SPACES[] = " \t\n\r";
/// What a value of JSON text begins with, but for numbers below zero and literals.
constexpr char JSON_BEGINS[] = "{[\"0123456789";
constexpr const char* JSON_LITERALS[] = {"true", "false", "null"};

/// @param text  the beginning of a datagram, up to its first NUL
bool canBeginJson(const char* text)
{
    const char* begin = text + std::strspn(text, JSON_SPACES);
    if (*begin == '\0' || std::strchr(JSON_BEGINS, *begin) != nullptr) {
        return *begin != '\0';
    }
    const bool isLiteral =
        std::any_of(std::begin(JSON_LITERALS), std::end(JSON_LITERALS),
                    [begin](const char* literal) { return std::strncmp(begin, literal, std::strlen(literal)) == 0; });
    return isLiteral || (*begin == '-' && begin[1] >= '0' && begin[1] <= '9');
}

/// True when a datagram that should be a body is the next head instead: it has the size of a head, not the one that
/// was announced, and cannot begin JSON text.
/// @param begin  of the datagram, with a NUL behind it
bool isHead(int size, const char* begin, std::uint32_t announcedLength)
{
    return size == static_cast<int>(sizeof(CommandHead)) && announcedLength != sizeof(CommandHead) &&
           !canBeginJson(begin);
}

/// The command's name as text.
std::string nameOf(const Var& cmd)
{
    return cmd.isEmpty() ? cmd.extract<std::string>() : JsonText::fromAny(cmd);
}

/// What a reply takes memory for. Memory that is short for a moment must not cost a client its reply.
struct Reply
{
    std::string body;
    Poco::Net::SocketAddress address;
};

Reply makeReply(const std::string& destPath, int statusCode)
{
    for (int attempt = 1;; ++attempt) {
        try {
            Object::Ptr status = new Object;
            status->set("StatusCode", statusCode);
            return {JsonText::indented(status, REPLY_BLANKS),
                    Poco::Net::SocketAddress(Poco::Net::AddressFamily::UNIX_LOCAL, destPath)};
        } catch (const std::bad_alloc&) {
            if (attempt == ATTEMPTS) {
                throw;
            }
            Interruption::sleep(ATTEMPT_PAUSE);
        }
    }
}

}  // namespace

CustomJsonMsgLoop::CustomJsonMsgLoop(CustomSubSystem* pSubSystem)
    : Poco::Task(TASK_NAME),
      m_pApp(nullptr),
      m_address(Poco::Net::AddressFamily::UNIX_LOCAL, COMMAND_PATH),
      m_downloadTaskParam(),
      m_pSubSystem(pSubSystem)
{
}

CustomJsonMsgLoop::~CustomJsonMsgLoop() = default;

void CustomJsonMsgLoop::bind()
{
    bindToPath(m_socket, m_address);
}

void CustomJsonMsgLoop::cancel()
{
    Poco::Task::cancel();
    m_interruption.interrupt();
}

void CustomJsonMsgLoop::runTask()
{
    ::prctl(PR_SET_NAME, TASK_NAME);
    const Interruption::Scope scope(m_interruption);
    try {
        while (!isCancelled()) {
            serveCommand();
        }
    } catch (const Interrupted&) {
        // Cancelled while it waited.
    }
}

void CustomJsonMsgLoop::serveCommand()
{
    const JsonText::MemoryReturn memoryReturn;
    std::uint32_t tag = 0;
    try {
        std::string body;
        RecvJsonMsg(body, tag);
        const MemoryReserve reserve = jsonReserve(body.size());
        Var cmd;
        Object::Ptr info;
        if (!GetJsonMsgInfo(body, cmd, info)) {
            LOG(Information, "GetJsonMsgInfo err:.");
            SendJsonMsg(COMMAND_CLIENT_PATH, tag, STATUS_FAILED);
            return;
        }
        dispatch(cmd, info, tag);
    } catch (const std::exception& exc) {
        LOG(Error, "PUBLIC_JSON Err %s ", exceptionText(exc).c_str());
        SendJsonMsg(COMMAND_CLIENT_PATH, tag, STATUS_FAILED);
    }
}

void CustomJsonMsgLoop::dispatch(const Var& cmd, Object::Ptr& info, std::uint32_t& tag)
{
    const std::string name = nameOf(cmd);
    LOG(Information, "Process cmd:%s.", name.c_str());
    LOG(Information, "Process info:%s.", JsonText::compact(info).c_str());
#define COMMAND(NAME, HANDLER, RESULT) \
    if (name == (NAME)) {              \
        HANDLER(info, tag);            \
        return;                        \
    }
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_Commands.inc"
#undef COMMAND
    SendJsonMsg(COMMAND_CLIENT_PATH, tag, STATUS_FAILED);
    LOG(Information, "Process cmd:%s  not supported .", name.c_str());
}

int CustomJsonMsgLoop::receiveDatagram(void* buffer, std::size_t length, int flags)
{
    const int descriptor = m_socket.impl()->sockfd();
    Interruption::wait(descriptor, POLLIN, -1);
    while (senderOfNextDatagram(descriptor) == COMMAND_PATH) {
        // A reply to a client whose path leads back here. Taken for a command it would be answered, and so on for ever.
        if (takeDatagram(buffer, 0, 0) < 0) {
            return -1;
        }
        Interruption::wait(descriptor, POLLIN, -1);
    }
    return takeDatagram(buffer, length, flags);
}

int CustomJsonMsgLoop::takeDatagram(void* buffer, std::size_t length, int flags)
{
    try {
        return m_socket.receiveBytes(buffer, static_cast<int>(length), flags);
    } catch (const Poco::Exception& exc) {
        LOG(Error, "receiveBytes fail:%s.", exc.displayText().c_str());
        return -1;
    }
}

bool CustomJsonMsgLoop::receiveBody(std::uint32_t announcedLength, std::string& body)
{
    char begin[sizeof(CommandHead) + 1] = {};
    const int size = receiveDatagram(begin, sizeof(CommandHead), MSG_PEEK | MSG_TRUNC);
    if (size < 0) {
        return false;
    }
    if (isHead(size, begin, announcedLength)) {
        // The next command: its client lost this one's body, and must not lose every later command with it.
        return true;
    }
    // The length is the client's word and may be anything; memory follows the datagram that is really there.
    const auto length = std::min<std::size_t>(announcedLength, static_cast<std::size_t>(size));
    const std::unique_ptr<char[]> buffer(new (std::nothrow) char[length + 1]());
    if (!buffer) {
        takeDatagram(begin, 0, 0);  // taken all the same, so that the next command begins with its head
        throw std::bad_alloc();
    }
    if (takeDatagram(buffer.get(), length, 0) < 0) {
        return false;
    }
    body.assign(buffer.get());
    return true;
}

void CustomJsonMsgLoop::RecvJsonMsg(std::string& body, std::uint32_t& tag)
{
    body.clear();
    CommandHead head{};
    if (receiveDatagram(&head, sizeof(head), 0) < 0) {
        // Whatever is wrong with the socket may last: no use in running into it at full speed.
        Interruption::sleep(ATTEMPT_PAUSE);
        return;
    }
    tag = head.tag;
    for (int attempt = 1; !receiveBody(head.bodyLength, body) && attempt < ATTEMPTS; ++attempt) {
        Interruption::sleep(ATTEMPT_PAUSE);
    }
}

bool CustomJsonMsgLoop::GetJsonMsgInfo(const std::string& body, Var& cmd, Object::Ptr& info)
{
    try {
        const Object::Ptr command = JsonText::parse(body).extract<Object::Ptr>();
        cmd = command->get(taskName);
        info = command->get(taskInfo).extract<Object::Ptr>();
        return true;
    } catch (const std::exception& exc) {
        LOG(Error, "PUBLIC_JSON Err %s ", exceptionText(exc).c_str());
        return false;
    }
}

void CustomJsonMsgLoop::SendJsonMsg(const std::string& destPath, const std::uint32_t& tag, int statusCode)
{
    try {
        const Reply reply = makeReply(destPath, statusCode);
        const std::string& body = reply.body;
        CommandHead head{};
        strncpy_s(head.destPath, sizeof(head.destPath), COMMAND_CLIENT_PATH, sizeof(head.destPath) - 1);
        strncpy_s(head.srcPath, sizeof(head.srcPath), COMMAND_PATH, sizeof(head.srcPath) - 1);
        head.tag = tag;
        head.bodyLength = static_cast<std::uint32_t>(body.size());
        const int headBytes = m_socket.sendTo(&head, sizeof(head), reply.address, DATAGRAM_SEND_FLAGS);
        const int bodyBytes =
            m_socket.sendTo(body.data(), static_cast<int>(body.size()), reply.address, DATAGRAM_SEND_FLAGS);
        LOG(Information, "SendJsonMsg head: %d body :%d.", headBytes, bodyBytes);
    } catch (const std::exception& exc) {
        LOG(Error, "SendJsonMsg fail:%s.", exceptionText(exc).c_str());
    }
}

}  // namespace MetaDataGW
}  // namespace IPCService
