#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_SubSystem.h"

#include <Poco/AutoPtr.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/SSLManager.h>
#include <Poco/ThreadPool.h>
#include <Poco/Util/Application.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <typeinfo>
#include <vector>

#include "log_lines.h"
#include "media_server/IPCService/ProtocolProcess/Public/Public_SubProcess.h"
#include "support/exchange_messages.h"
#include "support/fake_platform.h"
#include "support/tls_server.h"
#include "support/unix_socket.h"

using IPCService::MetaDataGW::CustomSubSystem;
using IPCService::ProtocalProcess::Public_SubProcess;

namespace {

constexpr char LOG_FILE[] = "Custom_SubSystem";

void makeMarker()
{
    std::ofstream("/tmp/intelligent_ok").put('\n');
}

std::size_t threads()
{
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

TEST(CustomSubSystemTest, HasNoThreadsOfItsOwn)
{
    Poco::ThreadPool::defaultPool();
    const std::size_t before = threads();
    const CustomSubSystem subSystem;
    EXPECT_EQ(threads(), before);
}

TEST(CustomSubSystemTest, IsMadeIdleUnderItsName)
{
    const CustomSubSystem subSystem;
    EXPECT_STREQ(subSystem.name(), "Custom Protocol");
    EXPECT_FALSE(subSystem.m_bDownloading);
    EXPECT_EQ(subSystem.m_ringBufHandle, nullptr);
    EXPECT_EQ(subSystem.m_taskManager.count(), 0);
    EXPECT_EQ(subSystem.m_downloadTask.name(), "Custom Download Picture");
    EXPECT_EQ(loggedBy(LOG_FILE), std::vector<LogLine>{info("CustomSubSystem ...")});
}

TEST(CustomSubSystemTest, HasAnIdentityOfItsTimeAndPlace)
{
    const auto first = std::make_unique<CustomSubSystem>();
    const CustomSubSystem second;
    EXPECT_EQ(first->m_uuid.version(), Poco::UUID::UUID_TIME_BASED);
    EXPECT_FALSE(first->m_uuid.isNull());
    EXPECT_NE(first->m_uuid, second.m_uuid);
}

/** Start-up with everything there but what a test takes away. */
class StartUpTest : public testing::Test
{
protected:
    StartUpTest()
    {
        makeMarker();
        CapturedLog::clear();
    }

    void startUp() { m_subSystem.initialize(m_app); }

    CustomSubSystem m_subSystem;
    Public_SubProcess m_app;
    UnixSocket m_itgt{"/tmp/II"};
};

TEST_F(StartUpTest, OpensTheRingBuffer)
{
    startUp();
    const std::vector<FakePlatform::Opened> opened = FakePlatform::opened();
    ASSERT_EQ(opened.size(), 1U);
    EXPECT_EQ(opened[0].name, "metadata_servfile26214");
    EXPECT_EQ(opened[0].size, 4194304U);
    EXPECT_NE(m_subSystem.m_ringBufHandle, nullptr);
    EXPECT_EQ(opened[0].handle, m_subSystem.m_ringBufHandle);
    EXPECT_EQ(loggedBy(LOG_FILE), std::vector<LogLine>{info("CustomSubSystem Wait itgt ok!\n")});
}

TEST_F(StartUpTest, TellsItgtThatItIsReady)
{
    startUp();
    std::string expected = messageOf(1037);
    putText(expected, 0, "/tmp/II");
    putText(expected, 8, "/tmp/CU");
    putNumber<std::uint32_t>(expected, 160, 4);
    EXPECT_EQ(difference(expected, m_itgt.receive().value_or("")), "");
}

TEST_F(StartUpTest, EndLeavesEverythingOpen)
{
    startUp();
    m_subSystem.uninitialize();
    EXPECT_TRUE(m_itgt.send("/tmp/CU", "still bound"));
    EXPECT_TRUE(m_itgt.send("/tmp/HK", "still bound"));
    EXPECT_NE(m_subSystem.m_ringBufHandle, nullptr);
}

/** The cipher names of a context, in order. */
std::vector<std::string> cipherNames(const SSL_CTX* context)
{
    std::vector<std::string> names;
    STACK_OF(SSL_CIPHER)* ciphers = SSL_CTX_get_ciphers(context);
    for (int i = 0; i < sk_SSL_CIPHER_num(ciphers); ++i) {
        names.emplace_back(SSL_CIPHER_get_name(sk_SSL_CIPHER_value(ciphers, i)));
    }
    return names;
}

TEST_F(StartUpTest, SetsTheTlsDefaultsOfTheProcess)
{
    startUp();
    const Poco::Net::Context::Ptr context = Poco::Net::SSLManager::instance().defaultClientContext();
    EXPECT_EQ(context->usage(), Poco::Net::Context::TLSV1_2_CLIENT_USE);
    EXPECT_EQ(context->verificationMode(), Poco::Net::Context::VERIFY_NONE);
    SSL_CTX* const found = context->sslContext();
    EXPECT_EQ(SSL_CTX_get_verify_mode(found), SSL_VERIFY_NONE);
    EXPECT_EQ(SSL_CTX_get_verify_depth(found), 9);
    EXPECT_EQ(SSL_CTX_get_min_proto_version(found), TLS1_2_VERSION);
    EXPECT_EQ(SSL_CTX_get_max_proto_version(found), TLS1_2_VERSION);
    EXPECT_NE(SSL_CTX_get_read_ahead(found), 0);
    EXPECT_EQ(SSL_CTX_get_session_cache_mode(found), SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
    EXPECT_EQ(SSL_CTX_get0_certificate(found), nullptr);
    EXPECT_EQ(SSL_CTX_get0_privatekey(found), nullptr);

    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> expected(SSL_CTX_new(TLS_client_method()), &SSL_CTX_free);
    ASSERT_EQ(SSL_CTX_set_cipher_list(expected.get(),
                                      "ALL:!DH:!aNULL:!eNULL:!SEED-SHA:!CAMELLIA128-SHA:!CAMELLIA256-SHA:"
                                      "!IDEA-CBC-SHA:!RC4:!AES256-SHA:!AES128-SHA:!DES-CBC3-SHA"),
              1);
    EXPECT_EQ(cipherNames(found), cipherNames(expected.get()));
}

TEST_F(StartUpTest, LoadsNoAuthoritiesThatItDoesNotAsk)
{
    writeCertificate("/tmp/authorities.pem");
    setenv("SSL_CERT_FILE", "/tmp/authorities.pem", 1);
    startUp();
    SSL_CTX* const context = Poco::Net::SSLManager::instance().defaultClientContext()->sslContext();
    EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(SSL_CTX_get_cert_store(context))), 0);
}

TEST(CustomSubSystemApplicationTest, AnotherApplicationIsNotServed)
{
    makeMarker();
    CustomSubSystem subSystem;
    Poco::AutoPtr<Poco::Util::Application> application(new Poco::Util::Application);
    EXPECT_THROW(subSystem.initialize(*application), std::bad_cast);
    EXPECT_EQ(FakePlatform::users().size(), 1U);
    EXPECT_TRUE(FakePlatform::opened().empty());
    EXPECT_FALSE(std::filesystem::exists("/tmp/HK"));
}

}  // namespace
