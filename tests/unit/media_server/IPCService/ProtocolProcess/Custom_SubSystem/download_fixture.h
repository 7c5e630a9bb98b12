#ifndef TESTS_UNIT_CUSTOM_SUBSYSTEM_DOWNLOAD_FIXTURE_H
#define TESTS_UNIT_CUSTOM_SUBSYSTEM_DOWNLOAD_FIXTURE_H

#include <Poco/AutoPtr.h>
#include <Poco/Task.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "log_lines.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadTaskParam.h"
#include "ready_service.h"
#include "support/itgt_replies.h"
#include "support/scripted_peer.h"
#include "support/tls_server.h"

/** A download between a platform and an analysis process. Both do as they should unless a test says otherwise before
    it begins. */
class DownloadTest : public testing::Test
{
protected:
    DownloadTest()
    {
        std::filesystem::create_directories("/tmp/mmcblk0/face_basic");
        std::ofstream("/tmp/state.json") << R"({"TaskResultArry":[]})";
    }

    IPCService::MetaDataGW::DownloadTaskParam task(std::uint32_t totalNum) const
    {
        IPCService::MetaDataGW::DownloadTaskParam param;
        param.ServerIp = "127.0.0.1";
        param.ServerPort = m_platform.port();
        param.ServerUri = "/page";
        param.ResultUri = "/result";
        param.securityCode = "S1";
        param.cameraCode = "C1";
        param.taskID = "T1";
        param.totalNum = totalNum;
        param.sqbh = "Q1";
        param.datatime = "D1";
        return param;
    }

    IPCService::MetaDataGW::DownloadPictureProcParam page(std::uint32_t startIndex = 0) const
    {
        const IPCService::MetaDataGW::DownloadTaskParam param = task(30);
        IPCService::MetaDataGW::DownloadPictureProcParam result;
        result.ServerIp = param.ServerIp;
        result.ServerPort = param.ServerPort;
        result.ServerUri = param.ServerUri;
        result.ResultUri = param.ResultUri;
        result.securityCode = param.securityCode;
        result.cameraCode = param.cameraCode;
        result.taskID = param.taskID;
        result.startIndex = startIndex;
        result.offset = 30;
        result.datatime = param.datatime;
        return result;
    }

    /** The page request that must be sent. */
    static std::string pageRequest(unsigned startIndex, unsigned offset)
    {
        return "{\n \"cameraCode\" : \"C1\",\n \"taskID\" : \"T1\",\n \"startIndex\" : " + std::to_string(startIndex) +
               ",\n \"offset\" : " + std::to_string(offset) +
               ",\n \"datatime\" : \"D1\",\n \"securityCode\" : \"S1\"\n}";
    }

    /** The result document of a page whose state file lists nothing. */
    static std::string resultDocument(unsigned startIndex, unsigned offset)
    {
        return R"({"ImportInfo":[],"cameraCode":"C1","datatime":"2024-05-06 07:08:09","offset":)" +
               std::to_string(offset) + R"(,"securityCode":"S1","startIndex":)" + std::to_string(startIndex) +
               R"(,"taskID":"T1"})";
    }

    static std::string pageFile(const std::string& name)
    {
        std::ifstream file("/tmp/mmcblk0/face_basic/faceLib/" + name, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }

    static bool pageFileExists(const std::string& name)
    {
        return std::filesystem::exists("/tmp/mmcblk0/face_basic/faceLib/" + name);
    }

    /** Tasks of the service that the test holds on to, until the service's end has waited for them. */
    std::vector<Poco::AutoPtr<Poco::Task>> m_tasks;
    ReadyService m_service;
    TlsServer::Script m_platformScript = always(httpAnswer("the page"));
    TlsServer m_platform{
        [this](TlsConnection& connection, const std::string& request) { m_platformScript(connection, request); }};
    ScriptedPeer::Script m_itgtScript = importAtOnce;
    ScriptedPeer m_itgt{"/tmp/II", [this](const std::string& request) { return m_itgtScript(request); }};
};

#endif
