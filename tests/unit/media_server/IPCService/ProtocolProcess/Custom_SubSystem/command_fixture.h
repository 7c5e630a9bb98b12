#ifndef TESTS_UNIT_CUSTOM_SUBSYSTEM_COMMAND_FIXTURE_H
#define TESTS_UNIT_CUSTOM_SUBSYSTEM_COMMAND_FIXTURE_H

#include <Poco/AutoPtr.h>
#include <Poco/Dynamic/Var.h>
#include <Poco/JSON/Object.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "log_lines.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_JsonMsgLoop.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_SubSystem.h"
#include "media_server/IPCService/ProtocolProcess/Public/Public_SubProcess.h"
#include "support/raw_bytes.h"
#include "support/system_calls.h"
#include "support/unix_socket.h"

/** The command loop and the client of its commands. The loop runs when the test says so. */
class CommandTest : public testing::Test
{
protected:
    CommandTest()
    {
        m_loop->bind();
        m_loop->m_pApp = &m_app;
        CapturedLog::clear();
    }

    ~CommandTest() override { m_loop->cancel(); }

    void startLoop() { m_app.startTask(m_loop.duplicate()); }

    /** The head of a command as a client sends it. */
    static std::string head(std::uint32_t tag, std::uint32_t bodyLength)
    {
        std::string bytes(280, '\0');
        putText(bytes, 0, "/tmp/HK");
        putText(bytes, 8, "/tmp/KH");
        putNumber<std::uint32_t>(bytes, 240, tag);
        putNumber<std::uint32_t>(bytes, 256, bodyLength);
        return bytes;
    }

    /** The head of a reply as it must be on the wire; its body has 24 bytes. */
    static std::string replyHead(std::uint32_t tag)
    {
        std::string bytes(280, '\0');
        putText(bytes, 0, "/tmp/KH");
        putText(bytes, 8, "/tmp/HK");
        putNumber<std::uint32_t>(bytes, 240, tag);
        putNumber<std::uint32_t>(bytes, 256, 24);
        return bytes;
    }

    static std::string replyBody(int status) { return "{\n  \"StatusCode\" : " + std::to_string(status) + "\n}"; }

    void sendDatagram(const std::string& bytes) { EXPECT_TRUE(m_client.send("/tmp/HK", bytes)); }

    void sendCommand(std::uint32_t tag, const std::string& body)
    {
        sendDatagram(head(tag, static_cast<std::uint32_t>(body.size())));
        sendDatagram(body);
    }

    /** The next reply must be this one, byte for byte. */
    void expectReply(std::uint32_t tag, int status)
    {
        EXPECT_EQ(m_client.receive().value_or("no head"), replyHead(tag));
        EXPECT_EQ(m_client.sender(), "/tmp/HK");
        EXPECT_EQ(m_client.receive().value_or("no body"), replyBody(status));
    }

    /** Takes one command in, without serving it. */
    void receiveCommand()
    {
        m_body = "of an earlier command";
        m_tag = 0;
        m_loop->RecvJsonMsg(m_body, m_tag);
    }

    /** Lets those calls of recv fail, counted from 1, that have one of these numbers. */
    static void failReceives(const std::set<int>& numbers)
    {
        auto count = std::make_shared<std::atomic<int>>(0);
        systemCalls().recvFails = [numbers, count] { return numbers.count(++*count) != 0; };
    }

    /** The arguments as the loop hands them to a handler. */
    Poco::JSON::Object::Ptr arguments(const std::string& json)
    {
        Poco::Dynamic::Var name;
        Poco::JSON::Object::Ptr info;
        EXPECT_TRUE(m_loop->GetJsonMsgInfo(R"({"taskInfo":)" + json + "}", name, info)) << json;
        return info;
    }

    IPCService::MetaDataGW::CustomSubSystem m_subSystem;
    Poco::AutoPtr<IPCService::MetaDataGW::CustomJsonMsgLoop> m_loop{
        new IPCService::MetaDataGW::CustomJsonMsgLoop(&m_subSystem)};
    // Its end waits for the loop and for the downloads, which use what stands before it.
    IPCService::ProtocalProcess::Public_SubProcess m_app;
    UnixSocket m_client{"/tmp/KH"};
    std::string m_body;
    std::uint32_t m_tag = 0;
};

/** The line that every reply leaves behind. */
inline LogLine replied()
{
    return info("SendJsonMsg head: %d body :%d.", "SendJsonMsg head: 280 body :24.");
}

#endif
