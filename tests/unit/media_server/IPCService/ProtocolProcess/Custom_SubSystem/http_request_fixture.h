#ifndef TESTS_UNIT_CUSTOM_SUBSYSTEM_HTTP_REQUEST_FIXTURE_H
#define TESTS_UNIT_CUSTOM_SUBSYSTEM_HTTP_REQUEST_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "log_lines.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_HttpParam.h"
#include "ready_service.h"
#include "support/tls_server.h"
#include "support/waiting.h"

/** A POST to a loopback port with the service's own TLS settings. */
class HttpRequestTest : public testing::Test
{
protected:
    int post(std::uint16_t port, const std::string& body = "{}", const std::string& uri = "/page")
    {
        IPCService::MetaDataGW::DownloadPictureProcParam server;
        server.ServerIp = m_host;
        server.ServerPort = port;
        const std::string method = "POST";
        return IPCService::MetaDataGW::Custom_HttpParam(
                   server, method, uri, IPCService::MetaDataGW::Custom_HttpParam::DEFAULT_CONTENT_TYPE, body)
            .SendMsgAndRecvResponse(m_response);
    }

    /** The request failed: 400, nothing in the response, and one error line that says why. */
    void expectFailure(int status, const std::string& reason)
    {
        EXPECT_EQ(status, 400);
        EXPECT_EQ(m_response, "");
        ASSERT_EQ(countLogged("Custom_HttpParam", "SendMsgAndRecvResponse err:%s"), 1);
        const LogLine last = loggedBy("Custom_HttpParam").back();
        EXPECT_EQ(last.level, 3);
        EXPECT_EQ(last.format, "SendMsgAndRecvResponse err:%s");
        EXPECT_NE(last.text.find("SendMsgAndRecvResponse err:" + reason), std::string::npos) << last.text;
        EXPECT_EQ(countLogged("Custom_HttpParam", "Http Status $%d"), 0);
    }

    ReadyService m_service;
    std::string m_host = "127.0.0.1";
    std::string m_response;
};

#endif
