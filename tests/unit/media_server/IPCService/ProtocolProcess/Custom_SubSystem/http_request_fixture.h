#ifndef TESTS_UNIT_CUSTOM_SUBSYSTEM_HTTP_REQUEST_FIXTURE_H
#define TESTS_UNIT_CUSTOM_SUBSYSTEM_HTTP_REQUEST_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "log_lines.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_HttpParam.h"
#include "ready_service.h"
#include "support/tls_server.h"

/** A POST to a loopback port with the service's own TLS settings. */
class HttpRequestTest : public testing::Test
{
protected:
    int post(std::uint16_t port, const std::string& body = "{}", const std::string& uri = "/page")
    {
        IPCService::MetaDataGW::DownloadPictureProcParam server;
        server.ServerIp = "127.0.0.1";
        server.ServerPort = port;
        const std::string method = "POST";
        return IPCService::MetaDataGW::Custom_HttpParam(
                   server, method, uri, IPCService::MetaDataGW::Custom_HttpParam::DEFAULT_CONTENT_TYPE, body)
            .SendMsgAndRecvResponse(m_response);
    }

    ReadyService m_service;
    std::string m_response;
};

#endif
