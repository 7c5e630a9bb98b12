#ifndef FUZZ_HARNESS_H
#define FUZZ_HARNESS_H

#include <Poco/AutoPtr.h>
#include <Poco/Task.h>
#include <poll.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonMsgLoop.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_SubSystem.h"
#include "media_server/IPCService/ProtocolProcess/Public/Public_SubProcess.h"
#include "support/played_platform.h"
#include "support/unix_socket.h"

/// The service after its start-up, and everything around it, on the one thread of a fuzz target.
///
/// Nothing waits: where the service would, poll comes here. What the service has sent is
/// answered then, and whether it has something to read decides what its wait ends with: with that, with the time-out,
/// which costs no time, or, when nothing will ever come, with an interruption as at a stop of the service.
///
/// To be run in a sandbox of its own (scripts/private-run): binds the camera's paths and writes its files.
class Harness
{
public:
    /// Answers a message with a reply; nothing: stays silent.
    using Answer = std::function<std::optional<std::string>(const std::string& message)>;

    static Harness& instance();

    /// Forgets the case before: peers that answer well, a platform that answers nothing, no input.
    void begin();

    /// Requires what must hold after each case.
    void end();

    Answer itgt;
    Answer faceLibrary;

    /// Is called when the service waits without limit for a descriptor and has nothing to read. Gives it something, or
    /// returns false: the service is interrupted, now and in all later waits of this case.
    std::function<bool()> giveInput;

    IPCService::MetaDataGW::CustomSubSystem& subSystem() { return m_subSystem; }
    IPCService::MetaDataGW::CustomJsonMsgLoop& commandLoop() { return *m_pLoop; }

    /// Puts one datagram on the command socket.
    void sendCommand(const std::string& datagram) const;

    /// The tags of the replies until now, each with a good status.
    std::vector<std::uint32_t> takeReplies();

    /// Whether a download has been started and not been run yet.
    bool hasDownload() const { return !m_tasks.empty(); }
    void runDownloads();

    /// Runs a download of three pages from begin to end.
    void downloadThreePages();

    /// Takes an interruption back: what runs next is another task.
    void resume() { m_isInterrupted = false; }
    bool isInterrupted() const { return m_isInterrupted; }

private:
    /// The application; its tasks run when the harness says so.
    class Application : public IPCService::ProtocalProcess::Public_SubProcess
    {
    public:
        void startTask(Poco::Task* pTask) override { Harness::instance().start(pTask); }
    };

    Harness();
    void startService();
    void start(Poco::Task* pTask);
    void servePeers();
    int wait(pollfd* waited, nfds_t count, int milliseconds);
    bool isReady(pollfd& waited) const;

    UnixSocket m_itgt;
    UnixSocket m_faceLibrary;
    UnixSocket m_client;
    std::vector<std::string> m_replies;  ///< datagrams
    std::vector<Poco::AutoPtr<Poco::Task>> m_tasks;
    bool m_isInterrupted = false;
    IPCService::MetaDataGW::CustomSubSystem m_subSystem;
    Application m_app;
    Poco::AutoPtr<IPCService::MetaDataGW::CustomJsonMsgLoop> m_pLoop;
};

/// Where the good peers say that their files are.
constexpr char STATE_PATH[] = "/tmp/state.json";
constexpr char LISTS_PATH[] = "/tmp/lists.json";

/// Writes a whole file.
void writeFile(const char* path, const std::string& text);

/// What a good ITGT and a good face library answer.
std::optional<std::string> goodItgt(const std::string& message);
std::optional<std::string> goodFaceLibrary(const std::string& message);

/// The platform's answer to every request: a page, which does as the answer to a report.
PlatformScript goodPlatform();

#endif
