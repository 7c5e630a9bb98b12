#ifndef TESTS_UNIT_CUSTOM_SUBSYSTEM_PAGE_REPORT_FIXTURE_H
#define TESTS_UNIT_CUSTOM_SUBSYSTEM_PAGE_REPORT_FIXTURE_H

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "log_lines.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_PageResultReport.h"
#include "ready_service.h"
#include "support/itgt_replies.h"
#include "support/scripted_peer.h"
#include "support/tls_server.h"

/** The report of one page: from a state file to the platform's request. */
class PageReportTest : public testing::Test
{
protected:
    PageReportTest()
    {
        m_page.ServerIp = "127.0.0.1";
        m_page.ServerPort = m_platform.port();
        m_page.ServerUri = "/page";
        m_page.ResultUri = "/result";
        m_page.securityCode = "S1";
        m_page.cameraCode = "C1";
        m_page.taskID = "T1";
        m_page.startIndex = 60;
        m_page.offset = 15;
        m_page.datatime = "of the command";
        m_page.importTaskId = 4711;
    }

    /** Runs the report over a state file with that text. */
    void report(const std::string& state)
    {
        std::ofstream("/tmp/state.json", std::ios::binary) << state;
        reportFile("/tmp/state.json");
    }

    void reportFile(const char* path) { IPCService::MetaDataGW::ReportPageResult(m_page, path); }

    /** The one document that the platform got. */
    std::string document() const
    {
        const std::vector<std::string> bodies = m_platform.bodies();
        EXPECT_EQ(bodies.size(), 1U);
        return bodies.empty() ? "" : bodies[0];
    }

    /** What the document says about the pictures. */
    std::string importInfo() const
    {
        const std::string text = document();
        const std::string begin = "{\"ImportInfo\":";
        EXPECT_EQ(text.compare(0, begin.size(), begin), 0) << text;
        return text.substr(begin.size(), text.find(",\"cameraCode\"") - begin.size());
    }

    /** The report ended with this one line, without a word to anybody. */
    void expectEndedBy(const LogLine& line)
    {
        EXPECT_EQ(loggedBy("Custom_DownloadPictureProcObj"), std::vector<LogLine>{line});
        EXPECT_TRUE(m_itgt.requests().empty());
        EXPECT_EQ(m_platform.accepted(), 0);
    }

    ReadyService m_service;
    TlsServer::Script m_platformScript = always(httpAnswer("{}"));
    TlsServer m_platform{
        [this](TlsConnection& connection, const std::string& request) { m_platformScript(connection, request); }};
    ScriptedPeer::Script m_itgtScript = importAtOnce;
    ScriptedPeer m_itgt{"/tmp/II", [this](const std::string& request) { return m_itgtScript(request); }};
    IPCService::MetaDataGW::DownloadPictureProcParam m_page;
};

#endif
