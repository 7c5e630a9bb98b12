#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_SubSystem.h"

#include <Poco/Net/AcceptCertificateHandler.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/InvalidCertificateHandler.h>
#include <Poco/Net/NetSSL.h>
#include <Poco/Net/SSLException.h>
#include <Poco/Net/SSLManager.h>
#include <Poco/Thread.h>
#include <Poco/ThreadPool.h>
#include <Poco/UUIDGenerator.h>
#include <Poco/Util/Application.h>
#include <openssl/ssl.h>
#include <unistd.h>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_HandOver.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonMsgLoop.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PlatformSocket.h"
#include "media_server/IPCService/Public/MsgData.h"
#include "media_server/IPCService/Public/ServiceLog.h"
#include "media_server/IPCService/Public/StopSignals.h"
#include "public/utils/alg_utils/utils_log.h"
#include "ql_process.h"

namespace IPCService {
namespace MetaDataGW {

namespace {

constexpr LogSource LOG_SOURCE{"media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_SubSystem"};

constexpr char OWN_PATH[] = "/tmp/CU";
constexpr char ITGT_READY_MARKER[] = "/tmp/intelligent_ok";
constexpr char SERVICE_USER[] = "sshd";
constexpr long MARKER_INTERVAL = 1000;  // milliseconds
constexpr long long RING_BUFFER_KEY = 26214;
constexpr long long RING_BUFFER_SIZE = 0x400000;  // bytes
constexpr std::uint32_t READY_SUB_TYPE = 4;
constexpr int VERIFICATION_DEPTH = 9;
constexpr char CIPHERS[] =
    "ALL:!DH:!aNULL:!eNULL:!SEED-SHA:!CAMELLIA128-SHA:!CAMELLIA256-SHA:!IDEA-CBC-SHA:!RC4:!AES256-SHA:!AES128-SHA:"
    "!DES-CBC3-SHA";

void switchUser()
{
    handOverTo(SERVICE_USER);
    if (QL_ChangeProcUser(SERVICE_USER) != 0) {
        LOG(Error, "Fail to run ChangeProcUser");
    }
}

void waitForItgt()
{
    while (::access(ITGT_READY_MARKER, F_OK) != 0) {
        LOG(Information, "CustomSubSystem Wait itgt fail!\n");
        Poco::Thread::sleep(MARKER_INTERVAL);
    }
    LOG(Information, "CustomSubSystem Wait itgt ok!\n");
}

/// Sets the TLS defaults of every HTTPS session of the process.
void setUpTls()
{
    using Poco::Net::Context;
    Poco::Net::initializeSSL();
    // The platform's certificate is not checked. Should the library ask its handler nevertheless, the answer is yes,
    // without a question to a console that nobody sits at.
    const Poco::SharedPtr<Poco::Net::InvalidCertificateHandler> pCertificateHandler(
        new Poco::Net::AcceptCertificateHandler(false));
    const Context::Ptr pContext(
        new Context(Context::TLSV1_2_CLIENT_USE, "", "", "", Context::VERIFY_NONE, VERIFICATION_DEPTH, false, CIPHERS));
    // The usage names the lowest version only.
    if (SSL_CTX_set_min_proto_version(pContext->sslContext(), TLS1_2_VERSION) != 1 ||
        SSL_CTX_set_max_proto_version(pContext->sslContext(), TLS1_2_VERSION) != 1) {
        throw Poco::Net::SSLContextException("TLS 1.2 is not available");
    }
    // The library's own callback looks at certificates even so, and where memory is short it throws through OpenSSL,
    // which ends the process.
    SSL_CTX_set_verify(pContext->sslContext(), SSL_VERIFY_NONE, nullptr);
    // A read takes what has come, not a record's length first and then its bytes.
    SSL_CTX_set_read_ahead(pContext->sslContext(), 1);
    // Newer versions of the library (1.13) learn of a session only so. It is kept by its ResumptionScope and not by
    // OpenSSL.
    SSL_CTX_set_session_cache_mode(pContext->sslContext(), SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
    forgetSessionsWithoutMemory(pContext->sslContext());
    Poco::Net::SSLManager::instance().initializeClient(nullptr, pCertificateHandler, pContext);
}

}  // namespace

CustomSubSystem::CustomSubSystem()
    : m_pTransmitter(new IPCUnixTransmitter(OWN_PATH)),
      m_pProtocol(new IPCServiceOldProtocol(m_pTransmitter.get())),
      m_ringBufHandle(nullptr),
      m_uuid(Poco::UUIDGenerator::defaultGenerator().create()),
      m_bDownloading(false),
      // Not a pool of its own, as in POCO 1.13: its threads would take stop signals away from the main thread.
      m_taskManager(Poco::ThreadPool::defaultPool())
{
    LOG(Information, "CustomSubSystem ...");
}

CustomSubSystem::~CustomSubSystem() = default;

const char* CustomSubSystem::name() const
{
    return "Custom Protocol";
}

void CustomSubSystem::initialize(Poco::Util::Application& app)
{
    switchUser();
    waitForItgt();
    auto& starter = dynamic_cast<TaskStarter&>(app);
    const int nRet = Utils_ProcessRingBufProducerInit(&m_ringBufHandle, nullptr, RING_BUFFER_KEY, RING_BUFFER_SIZE);
    if (nRet != IPC_SUCCESS) {
        LOG(Error, "%s Utils_ProcessRingBufProducerInit fail, errno[%d]", "initialize", nRet);
        return;
    }
    announceToItgt();
    setUpTls();
    startCommandLoop(starter);
}

void CustomSubSystem::uninitialize() {}

void CustomSubSystem::announceToItgt()
{
    MSG_DATA message{};
    setMsgHeader(message, ITGT_PATH, OWN_PATH, READY_SUB_TYPE, CMD_CUSTOM_PROTOCOL_READY);
    m_pProtocol->send(ITGT_PATH, CMD_CUSTOM_PROTOCOL_READY, message);
}

void CustomSubSystem::startCommandLoop(TaskStarter& app)
{
    // From the bind on, whoever sees the socket may send a stop signal before the wait for it begins.
    holdStopSignals();
    m_pLoop = new CustomJsonMsgLoop(this);
    m_pLoop->bind();
    m_pLoop->m_pApp = app.application();
    app.startTask(m_pLoop.duplicate());
}

}  // namespace MetaDataGW
}  // namespace IPCService
