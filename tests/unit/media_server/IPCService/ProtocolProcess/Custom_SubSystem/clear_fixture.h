#ifndef TESTS_UNIT_CUSTOM_SUBSYSTEM_CLEAR_FIXTURE_H
#define TESTS_UNIT_CUSTOM_SUBSYSTEM_CLEAR_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "command_fixture.h"
#include "support/exchange_messages.h"
#include "support/scripted_peer.h"

/** The face-library process's acceptance of a clear request, with the configuration it hands out. */
inline std::string clearReply(std::uint32_t status, const std::string& configPath)
{
    std::string reply = messageOf(7019);
    putNumber<std::uint32_t>(reply, 176, status);
    putText(reply, 216, configPath);
    return reply;
}

/** A face-list setting as it must be on the wire. */
inline std::string listRequest(std::uint64_t id, std::int32_t type, std::int32_t onControl, std::int64_t threshold,
                               const std::string& name)
{
    std::string message = requestOf("/tmp/A", 1, 7018);
    putNumber<std::uint32_t>(message, 208, 3);
    putNumber<std::uint64_t>(message, 216, id);
    putNumber<std::int32_t>(message, 224, type);
    putNumber<std::int32_t>(message, 228, onControl);
    putNumber<std::int64_t>(message, 232, threshold);
    putText(message, 240, name);
    return message;
}

/** One face list of a configuration. */
inline std::string list(const std::string& id, const std::string& name, const std::string& onControl = "1",
                        const std::string& threshold = "80", const std::string& type = "2")
{
    return R"({"ID":)" + id + R"(,"FaceListName":)" + name + R"(,"OnControl":)" + onControl + R"(,"Threshold":)" +
           threshold + R"(,"FaceListType":)" + type + "}";
}

/** The whiteListClear command. The face-library process accepts it and sends every setting back unchanged, unless a
    test says otherwise before it begins. */
class ClearTest : public CommandTest
{
protected:
    /** Handles a command whose configuration file has that text. @return what the handler returns */
    int handle(const std::string& config)
    {
        std::ofstream("/tmp/config.json", std::ios::binary) << config;
        return handleArguments(R"({"cameraCode":"C1"})");
    }

    /** A configuration of these lists. */
    int handleLists(const std::string& lists) { return handle(R"({"FaceListsArry":[)" + lists + "]}"); }

    int handleArguments(const std::string& json)
    {
        auto info = arguments(json);
        CapturedLog::clear();
        std::uint32_t tag = 33;
        return m_loop->WhiteListClearHandler(info, tag);
    }

    /** The settings that the face-library process got. */
    std::vector<std::string> settings() const { return m_library.requests(7018); }

    std::string m_configPath = "/tmp/config.json";
    ScriptedPeer::Script m_libraryScript = [this](const std::string& request) {
        return commandOf(request) == 7019 ? clearReply(0, m_configPath) : request;
    };
    ScriptedPeer m_library{"/tmp/A", [this](const std::string& request) { return m_libraryScript(request); }};
};

#endif
