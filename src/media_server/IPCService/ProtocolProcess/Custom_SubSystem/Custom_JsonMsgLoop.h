#ifndef CUSTOM_SUBSYSTEM_CUSTOM_JSONMSGLOOP_H
#define CUSTOM_SUBSYSTEM_CUSTOM_JSONMSGLOOP_H

#include <Poco/Dynamic/Var.h>
#include <Poco/JSON/Object.h>
#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Task.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadTaskParam.h"
#include "media_server/IPCService/Public/Interruption.h"

namespace IPCService {
namespace ProtocalProcess {
class Public_SubProcess;
}
namespace MetaDataGW {

class CustomSubSystem;

/// Status codes of a reply.
constexpr int STATUS_OK = 200;
constexpr int STATUS_FAILED = 400;
constexpr int STATUS_BUSY = 409;

/// Socket path that commands come in on.
constexpr char COMMAND_PATH[] = "/tmp/HK";

/// Socket path that every reply goes to.
constexpr char COMMAND_CLIENT_PATH[] = "/tmp/KH";

/// Receives JSON commands on COMMAND_PATH, one after the other, and answers them on COMMAND_CLIENT_PATH.
///
/// A command or reply is two datagrams: a head of 280 bytes with a tag and the length of the second, and a body of JSON
/// text. Everything runs on the task's thread, a thread of the service's task manager; only cancel() may be called
/// from elsewhere.
class CustomJsonMsgLoop : public Poco::Task
{
public:
    /// @param pSubSystem  not owned; must outlive the loop's run
    /// @throws Poco::Exception when no descriptor is free
    explicit CustomJsonMsgLoop(CustomSubSystem* pSubSystem);
    ~CustomJsonMsgLoop() override;

    /// Binds the command socket. To be called before the loop starts.
    /// @throws Poco::IOException when the path cannot be bound
    void bind();

    /// Ends the loop within its present wait, whatever it waits for. Any thread, at any time.
    void cancel() override;

    /// Serves until cancelled. No failure of a command leaves it.
    void runTask() override;

    /// Waits for one command.
    ///
    /// @param body  set to the body's text up to its first NUL; empty when the body is missing
    /// @param tag   set to the head's tag; 0 when the head is missing
    /// @throws Interrupted when the calling thread is interrupted
    void RecvJsonMsg(std::string& body, std::uint32_t& tag);

    /// Decodes a body.
    ///
    /// @param cmd   set to the command's name, of any type, empty when absent
    /// @param info  set to the command's arguments
    /// @return false when the body is no command, which is logged
    bool GetJsonMsgInfo(const std::string& body, Poco::Dynamic::Var& cmd, Poco::JSON::Object::Ptr& info);

    /// Sends one reply. A failure is logged and not retried.
    ///
    /// @param destPath    socket path that it is sent to
    /// @param tag         tag of the command that it answers
    /// @param statusCode  STATUS_OK, STATUS_FAILED or STATUS_BUSY
    void SendJsonMsg(const std::string& destPath, const std::uint32_t& tag, int statusCode);

    // The handlers, one for each command.
#define COMMAND(NAME, HANDLER, RESULT) RESULT HANDLER(Poco::JSON::Object::Ptr& info, std::uint32_t& tag);
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_Commands.inc"
#undef COMMAND

    /// The application, which runs the downloads; not owned. Set before the loop starts, must outlive its run.
    ProtocalProcess::Public_SubProcess* m_pApp;

private:
    /// Waits for one datagram. @return its bytes, as recv counts them with these flags; -1 after a failure, logged
    int receiveDatagram(void* buffer, std::size_t length, int flags);

    /// The same for a datagram that is known to be there: only this thread takes any.
    int takeDatagram(void* buffer, std::size_t length, int flags);

    /// Tries once to receive the datagram behind a head.
    /// @param announcedLength  bytes that the head announced; a longer datagram is cut
    /// @param body             set to its text up to its first NUL; left as it is when the body is missing
    /// @return false after a failure, which is logged
    bool receiveBody(std::uint32_t announcedLength, std::string& body);

    void serveCommand();
    void dispatch(const Poco::Dynamic::Var& cmd, Poco::JSON::Object::Ptr& info, std::uint32_t& tag);

    Poco::Net::SocketAddress m_address;
    Poco::Net::DatagramSocket m_socket;
    DownloadTaskParam m_downloadTaskParam;  ///< written only while no download runs
    CustomSubSystem* m_pSubSystem;
    Interruption m_interruption;
};

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
