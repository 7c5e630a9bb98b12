#include "harness.h"

#include <signal.h>

#include <cstdio>
#include <filesystem>
#include <utility>

#include "in_process_platform.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonPicDownloadTask.h"
#include "oracle.h"
#include "support/captured_log.h"
#include "support/fake_platform.h"
#include "support/itgt_replies.h"
#include "support/system_calls.h"

namespace {

constexpr char COMMAND_PATH[] = "/tmp/HK";
constexpr char EXCHANGE_PATH[] = "/tmp/CP";
constexpr char PAGE_FOLDER[] = "/tmp/mmcblk0/face_basic/faceLib";
constexpr std::size_t HEAD_SIZE = 280;
constexpr std::chrono::milliseconds NOW(0);

constexpr char GOOD_STATE[] = R"({"TaskResultArry":[{"ID":"11","RESULT_TYPE_E":0},{"ID":12,"RESULT_TYPE_E":"-3"}]})";
constexpr char GOOD_LISTS[] =
    R"({"FaceListsArry":[{"ID":7,"FaceListName":"staff","OnControl":0,"Threshold":90,"FaceListType":1}]})";

/// Gives the thread its signals back that the start-up of the service holds back.
class KeptSignals
{
public:
    KeptSignals() { pthread_sigmask(SIG_SETMASK, nullptr, &m_before); }
    ~KeptSignals() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    KeptSignals(const KeptSignals&) = delete;
    KeptSignals& operator=(const KeptSignals&) = delete;

private:
    sigset_t m_before = {};
};

}  // namespace

PlatformScript goodPlatform()
{
    return always(httpAnswer("{\"records\":[]}"));
}

void writeFile(const char* path, const std::string& text)
{
    std::FILE* file = std::fopen(path, "wb");
    require(file != nullptr, "a file can be written", path);
    const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    require(std::fclose(file) == 0 && written, "a file can be written", path);
}

std::optional<std::string> goodItgt(const std::string& message)
{
    const std::string reply = importAtOnce(message);
    return reply.empty() ? std::nullopt : std::optional<std::string>(reply);
}

std::optional<std::string> goodFaceLibrary(const std::string& message)
{
    std::string reply = message;
    if (commandOf(message) == 7019) {
        putText(reply, 216, LISTS_PATH);
    }
    return reply;
}

Harness& Harness::instance()
{
    static Harness& harness = *new Harness;
    return harness;
}

Harness::Harness() : m_itgt("/tmp/II"), m_faceLibrary("/tmp/A"), m_client("/tmp/KH")
{
    systemCalls().poll = [this](pollfd* waited, nfds_t count, int milliseconds) {
        return wait(waited, count, milliseconds);
    };
    systemCalls().usleep = [](useconds_t) {};
}

void Harness::startService()
{
    writeFile("/tmp/intelligent_ok", "");
    std::filesystem::create_directories(PAGE_FOLDER);
    const KeptSignals signals;
    m_subSystem.initialize(m_app);
    require(m_tasks.size() == 1, "the start-up starts the command loop");
    m_pLoop = m_tasks[0].cast<IPCService::MetaDataGW::CustomJsonMsgLoop>();
    m_tasks.clear();
    require(m_itgt.receive(NOW).has_value(), "the service announces itself to ITGT");
}

void Harness::begin()
{
    if (m_pLoop.isNull()) {
        startService();
    }
    itgt = goodItgt;
    faceLibrary = goodFaceLibrary;
    giveInput = nullptr;
    m_isInterrupted = false;
    InProcessPlatform::instance().begin();
    CapturedLog::clear();
    writeFile(STATE_PATH, GOOD_STATE);
    writeFile(LISTS_PATH, GOOD_LISTS);
}

void Harness::end()
{
    servePeers();
    require(m_replies.empty(), "no reply is sent that nobody waits for");
    require(m_tasks.empty(), "no download is left");
    require(!IPCService::MetaDataGW::isBusy(m_subSystem.m_bDownloading), "a download that has ended is no longer busy");
    for (const std::string& request : InProcessPlatform::instance().requests) {
        requireRequest(request);
    }
    for (const FakePlatform::Sent& sent : FakePlatform::takeSent()) {
        require(sent.flag == 1, "a record is an ordinary one");
        require(sent.record.find('\0') == sent.record.size() - 1, "a record has one NUL, at its end", sent.record);
        require(isJson(sent.record.substr(0, sent.record.size() - 1)), "a record is JSON", sent.record);
    }
    InProcessPlatform::instance().begin();
    itgt = nullptr;
    faceLibrary = nullptr;
    giveInput = nullptr;
}

void Harness::sendCommand(const std::string& datagram) const
{
    require(m_client.send(COMMAND_PATH, datagram), "the command socket takes a datagram");
}

std::vector<std::uint32_t> Harness::takeReplies()
{
    servePeers();
    require(m_replies.size() % 2 == 0, "a reply has a head and a body");
    std::vector<std::uint32_t> tags;
    for (std::size_t i = 0; i < m_replies.size(); i += 2) {
        const std::string& head = m_replies[i];
        const std::string& body = m_replies[i + 1];
        require(head.size() == HEAD_SIZE, "the head of a reply has 280 bytes", head);
        require(textAt(head, 0) == "/tmp/KH" && textAt(head, 8) == "/tmp/HK", "a reply names its sockets", head);
        require(numberAt<std::uint32_t>(head, 256) == body.size(), "a reply announces its body", head);
        require(body == "{\n  \"StatusCode\" : 200\n}" || body == "{\n  \"StatusCode\" : 400\n}" ||
                    body == "{\n  \"StatusCode\" : 409\n}",
                "a reply has a status", body);
        tags.push_back(numberAt<std::uint32_t>(head, 240));
    }
    m_replies.clear();
    return tags;
}

void Harness::runDownloads()
{
    const auto tasks = std::exchange(m_tasks, {});
    for (Poco::AutoPtr<Poco::Task> pTask : tasks) {
        pTask->runTask();
    }
}

void Harness::downloadThreePages()
{
    IPCService::MetaDataGW::DownloadTaskParam task;
    task.ServerIp = "127.0.0.1";
    task.ServerPort = 443;
    task.ServerUri = "/page";
    task.ResultUri = "/result";
    task.totalNum = 61;
    Poco::AutoPtr<IPCService::MetaDataGW::CustomJsonPicDownloadTask> pTask(
        new IPCService::MetaDataGW::CustomJsonPicDownloadTask(&m_subSystem, &task));
    pTask->runTask();
}

void Harness::start(Poco::Task* pTask)
{
    m_tasks.emplace_back(pTask);
}

void Harness::servePeers()
{
    const std::pair<UnixSocket*, Answer*> peers[] = {{&m_itgt, &itgt}, {&m_faceLibrary, &faceLibrary}};
    for (const auto& [peer, answer] : peers) {
        while (const std::optional<std::string> message = peer->receive(NOW)) {
            require(message->size() == MESSAGE_BYTES, "a message has 21408 bytes");
            const std::optional<std::string> reply = *answer ? (*answer)(*message) : std::nullopt;
            if (reply) {
                peer->send(EXCHANGE_PATH, *reply);
            }
        }
    }
    while (const std::optional<std::string> datagram = m_client.receive(NOW)) {
        // A message comes here when a peer's reply leads the service to the client's socket.
        if (datagram->size() != MESSAGE_BYTES) {
            m_replies.push_back(*datagram);
        }
    }
}

bool Harness::isReady(pollfd& waited) const
{
    if (InProcessPlatform::instance().owns(waited.fd)) {
        return InProcessPlatform::instance().isReady(waited.events);
    }
    constexpr timespec AT_ONCE = {};
    return ::ppoll(&waited, 1, &AT_ONCE, nullptr) > 0;  // the fuzzer's own signals end the call, too
}

int Harness::wait(pollfd* waited, nfds_t count, int milliseconds)
{
    require(count >= 1 && count <= 3, "the service waits for its interruption and for two descriptors at most");
    pollfd& interruption = waited[count - 1];
    servePeers();
    if (!m_isInterrupted) {
        for (pollfd* one = waited; one != &interruption; ++one) {
            if (one->fd >= 0 && isReady(*one)) {
                return 1;
            }
        }
        // Who waits for two descriptors waits for a reply. Every reply that will come is there.
        if (milliseconds >= 0 && count < 3) {
            return 0;
        }
        if (giveInput && giveInput()) {
            return 1;
        }
    }
    m_isInterrupted = true;
    interruption.revents = POLLIN;
    return 1;
}
