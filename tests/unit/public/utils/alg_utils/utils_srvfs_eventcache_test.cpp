#include "public/utils/alg_utils/utils_srvfs_eventcache.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "support/captured_log.h"
#include "support/event_cache.h"
#include "support/log_line.h"
#include "support/raw_bytes.h"
#include "support/system_calls.h"

namespace {

const char SOURCE[] = "public/utils/alg_utils/utils_srvfs_eventcache";
using Texts = std::vector<std::string>;

/// Expects that this was the only record, an error, and forgets it.
void expectOnlyError(const std::string& text)
{
    EXPECT_EQ(CapturedLog::records().size(), 1U);
    EXPECT_EQ(onlyLine(SOURCE, 3, "[%s]:" + text), "[LogCommon]:" + text);
    CapturedLog::clear();
}

class Subscriber : public testing::Test
{
protected:
    Subscriber() { std::memset(&handle, 0x5A, sizeof handle); }
    ~Subscriber() override
    {
        if (handle.nEventFd > 2 && handle.nEventFd != 0x5A5A5A5A) {
            ::close(handle.nEventFd);
        }
    }

    EventCache cache;
    EventCacheHndl handle;
};

TEST_F(Subscriber, DebugFlagIsZeroAndGoesWithEveryRecord)
{
    EXPECT_EQ(sizeof g_enITGTDebugFlag, 4U);
    EXPECT_EQ(static_cast<int>(g_enITGTDebugFlag), 0);
    g_enITGTDebugFlag = static_cast<ITGT_DEBUG_FLAG>(7);
    Utils_EventCacheSubscriberInit(nullptr, "name");
    g_enITGTDebugFlag = ITGT_DEBUG_OFF;
    EXPECT_EQ(CapturedLog::records().at(0).debugFlag, 7);
}

TEST_F(Subscriber, InitOpensBothNodesLogsThemAsDetailAndKeepsTheName)
{
    EXPECT_EQ(Utils_EventCacheSubscriberInit(&handle, "gate.saas.olv"), 0);

    using Nodes = std::vector<std::pair<std::string, int>>;
    Nodes nodes = cache.openedNodes();
    for (auto& node : nodes) {
        node.second &= O_ACCMODE;
    }
    EXPECT_EQ(nodes, (Nodes{{"/mnt/srvfs/event.paas.olv", O_RDWR}, {"/dev/cache", O_RDWR}}));
    const std::string bytes = bytesOf(handle);
    EXPECT_EQ(bytes.size(), 24U);
    EXPECT_NE(::fcntl(numberAt<int>(bytes, 0), F_GETFD), -1);
    EXPECT_NE(numberAt<int>(bytes, 0), cache.cacheDescriptor());
    EXPECT_EQ(numberAt<int>(bytes, 4), cache.cacheDescriptor());
    EXPECT_EQ(bytes.substr(8), ::bytes("gate.saas.olv\0\0\0"));
    EXPECT_EQ(CapturedLog::texts(), (Texts{"[LogCommon]:open event fd is " + std::to_string(handle.nEventFd),
                                           "[LogCommon]:open cache fd is " + std::to_string(cache.cacheDescriptor())}));
    onlyLine(SOURCE, 0, "[%s]:open event fd is %d");
    onlyLine(SOURCE, 0, "[%s]:open cache fd is %d");
}

TEST_F(Subscriber, RefusesANullHandleAndThenANullName)
{
    EXPECT_EQ(Utils_EventCacheSubscriberInit(nullptr, nullptr), -2);
    expectOnlyError("ppstEventCacheHndl NULL");
    EXPECT_EQ(Utils_EventCacheSubscribe(nullptr, nullptr, nullptr), -2);
    expectOnlyError("ppstEventCacheHndl NULL");
    EXPECT_EQ(Utils_EventCacheSubscriberInit(&handle, nullptr), -2);
    expectOnlyError("pPublisherName NULL");
    EXPECT_EQ(Utils_EventCacheSubscribe(&handle, nullptr, nullptr), -2);
    expectOnlyError("pPublisherName NULL");
    EXPECT_EQ(bytesOf(handle), std::string(24, 0x5A)) << "not touched";
    EXPECT_TRUE(cache.openedNodes().empty());
}

TEST_F(Subscriber, InitFailsWhenTheHandleCannotBeCleared)
{
    systemCalls().memsetFails = true;
    EXPECT_EQ(Utils_EventCacheSubscriberInit(&handle, "name"), -1);
    systemCalls().memsetFails = false;
    expectOnlyError("memset_s fail");
    EXPECT_TRUE(cache.openedNodes().empty());
}

TEST_F(Subscriber, InitFailsWhenTheEventNodeCannotBeOpenedOrIsDescriptorZero)
{
    for (const int answer : {-1, 0}) {
        cache.eventAnswer = answer;
        EXPECT_EQ(Utils_EventCacheSubscriberInit(&handle, "name"), -1);
        expectOnlyError("open event pass fail");
        EXPECT_EQ(bytesOf(handle).substr(4), std::string(20, '\0')) << "cleared";
    }
    EXPECT_EQ(cache.openedNodes().size(), 2U);
    cache.eventAnswer = 1;
    EXPECT_EQ(Utils_EventCacheSubscriberInit(&handle, "name"), 0);
    EXPECT_EQ(handle.nEventFd, 1);
}

TEST_F(Subscriber, MissingCacheDriverDoesNotShowAtInit)
{
    for (const int answer : {-1, 0}) {
        CapturedLog::clear();
        cache.cacheAnswer = answer;
        EXPECT_EQ(Utils_EventCacheSubscriberInit(&handle, "name"), 0);
        EXPECT_EQ(handle.nCacheFd, answer);
        EXPECT_EQ(onlyLine(SOURCE, 0, "[%s]:open cache fd is %d"),
                  "[LogCommon]:open cache fd is " + std::to_string(answer));
        ::close(handle.nEventFd);
    }
    handle.nEventFd = -1;
}

TEST_F(Subscriber, NameOfFifteenCharactersFits)
{
    EXPECT_EQ(Utils_EventCacheSubscriberInit(&handle, "123456789012345"), 0);
    EXPECT_EQ(bytesOf(handle).substr(8), bytes("123456789012345\0"));
}

TEST_F(Subscriber, LongerNameFailsAndLeavesTheDescriptorsOpen)
{
    systemCalls().writing = [](int, int) { ADD_FAILURE() << "nothing may be written"; };
    EXPECT_EQ(Utils_EventCacheSubscribe(&handle, "1234567890123456", nullptr), -1);
    EXPECT_EQ(onlyLine(SOURCE, 3, "[%s]:strncpy_s fail"), "[LogCommon]:strncpy_s fail");
    onlyLine(SOURCE, 3, "[%s]:Utils_EventCacheSubscriberInit fail");
    EXPECT_NE(::fcntl(handle.nEventFd, F_GETFD), -1);
    EXPECT_NE(::fcntl(handle.nCacheFd, F_GETFD), -1);
}

TEST_F(Subscriber, SubscriptionRecordToTheByte)
{
    int parts = 0;
    int writes = 0;
    systemCalls().writing = [&parts, &writes](int, int count) {
        parts = count;
        ++writes;
    };
    EXPECT_EQ(Utils_EventCacheSubscribe(&handle, "gate.saas.olv", nullptr), 0);

    EXPECT_EQ(writes, 1);
    EXPECT_EQ(parts, 2);
    std::string expected = bytes("\x31\x53\0\x02\0\0\0\0\x10\0\0\0\x20\x01\0\0") + std::string(288, '\0');
    putText(expected, 16 + 16, "gate.saas.olv");
    putText(expected, 16 + 32, "1");
    EXPECT_EQ(cache.packet(), expected);
}

TEST_F(Subscriber, SubscriptionCarriesTheGivenTag)
{
    EXPECT_EQ(Utils_EventCacheSubscribe(&handle, "123456789012345", "abcdefghijklmno"), 0);
    const std::string record = cache.packet();
    EXPECT_EQ(record.substr(16 + 16, 32), bytes("123456789012345\0"
                                                "abcdefghijklmno\0"));
    EXPECT_EQ(record.substr(16 + 48), std::string(240, '\0'));
}

TEST_F(Subscriber, SubscribeReportsAFailedInit)
{
    cache.eventAnswer = -1;
    EXPECT_EQ(Utils_EventCacheSubscribe(&handle, "name", nullptr), -1);
    EXPECT_EQ(CapturedLog::texts(),
              (Texts{"[LogCommon]:open event pass fail", "[LogCommon]:Utils_EventCacheSubscriberInit fail"}));
    onlyLine(SOURCE, 3, "[%s]:Utils_EventCacheSubscriberInit fail");
}

TEST_F(Subscriber, SubscribeWithALongTagFails)
{
    systemCalls().writing = [](int, int) { ADD_FAILURE() << "nothing may be written"; };
    EXPECT_EQ(Utils_EventCacheSubscribe(&handle, "name", "1234567890123456"), -1);
    EXPECT_EQ(onlyLine(SOURCE, 3, "[%s]:strncpy_s fail"), "[LogCommon]:strncpy_s fail");
    EXPECT_TRUE(CapturedLog::withFormat("[%s]:Utils_EventCacheSubscriberInit fail").empty());
}

TEST_F(Subscriber, FailedWriteIsReported)
{
    const int readOnly = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    cache.eventAnswer = readOnly;
    EXPECT_EQ(Utils_EventCacheSubscribe(&handle, "name", nullptr), -1);
    EXPECT_EQ(onlyLine(SOURCE, 3, "[%s]:writev fail"), "[LogCommon]:writev fail");
    EXPECT_TRUE(CapturedLog::withFormat("[%s]:Utils_EventCacheSubscriberInit fail").empty());
}

}  // namespace
