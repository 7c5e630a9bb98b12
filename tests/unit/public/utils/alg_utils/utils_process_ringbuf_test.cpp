#include "public/utils/alg_utils/utils_process_ringbuf.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/captured_log.h"
#include "support/fake_platform.h"
#include "support/log_line.h"
#include "support/system_calls.h"

namespace {

const char SOURCE[] = "public/utils/alg_utils/utils_process_ringbuf";

class RingBuf : public testing::Test
{
protected:
    static std::int64_t put(ProcessRingBufHndl* handle, const std::string& record, int flag = 0)
    {
        const PutRecord putRecord = {record.data(), 0xDEADBEEF, static_cast<std::uint32_t>(record.size())};
        return Utils_ProcessRingBufPut(handle, &putRecord, flag);
    }

    ProcessRingBufHndl* opened()
    {
        EXPECT_EQ(Utils_ProcessRingBufProducerInit(&handle, nullptr, 26214, 0x400000), 0);
        EXPECT_NE(handle, nullptr);
        return handle;
    }

    ProcessRingBufHndl* handle = nullptr;
};

static_assert(std::is_same<decltype(&Utils_ProcessRingBufProducerInit),
                           int (*)(ProcessRingBufHndl**, void*, long long, long long)>::value,
              "four parameters");
static_assert(std::is_same<decltype(&Utils_ProcessRingBufPut),
                           std::int64_t (*)(ProcessRingBufHndl*, const PutRecord*, int)>::value,
              "64-bit result");

TEST_F(RingBuf, InitOpensTheNamedBufferOfThatSizeAndLogsItsNameAsAnError)
{
    opened();

    ASSERT_EQ(FakePlatform::opened().size(), 1U);
    EXPECT_EQ(FakePlatform::opened()[0].handle, handle);
    EXPECT_EQ(FakePlatform::opened()[0].name, "metadata_servfile26214");
    EXPECT_EQ(FakePlatform::opened()[0].size, 4194304U);
    ASSERT_EQ(FakePlatform::allocations().size(), 1U);
    EXPECT_GE(FakePlatform::allocations()[0], 512 + sizeof(pthread_mutex_t)) << "room for the framework's state";
    EXPECT_LE(FakePlatform::allocations()[0], 512 + sizeof(pthread_mutex_t) + alignof(std::max_align_t));
    EXPECT_EQ(CapturedLog::records().size(), 1U);
    EXPECT_EQ(onlyLine(SOURCE, 3, "[%s]:client open name %s\n"),
              "[LogCommon]:client open name metadata_servfile26214\n");
}

TEST_F(RingBuf, KeyIsDecimalWithSignAnd64BitsAndTheSizeHas32)
{
    const std::vector<std::tuple<long long, std::string>> keys = {
        {0, "metadata_servfile0"},
        {-1, "metadata_servfile-1"},
        {std::numeric_limits<long long>::max(), "metadata_servfile9223372036854775807"},
        {std::numeric_limits<long long>::min(), "metadata_servfile-9223372036854775808"}};
    for (const auto& [key, name] : keys) {
        EXPECT_EQ(Utils_ProcessRingBufProducerInit(&handle, nullptr, key, 0x1FFFFFFFFLL), 0);
        EXPECT_EQ(FakePlatform::opened().back().name, name);
        EXPECT_EQ(FakePlatform::opened().back().size, 0xFFFFFFFFU);
    }
}

TEST_F(RingBuf, InitWithoutMemoryFailsSilently)
{
    FakePlatform::settings().allocationFails = true;
    EXPECT_EQ(Utils_ProcessRingBufProducerInit(&handle, nullptr, 26214, 0x400000), -1);
    EXPECT_EQ(handle, nullptr);
    EXPECT_TRUE(FakePlatform::opened().empty());
    EXPECT_TRUE(CapturedLog::records().empty());
}

TEST_F(RingBuf, HandleIsKeptWhenTheNameCannotBeMade)
{
    const std::vector<std::tuple<bool SystemCalls::*, std::string>> failures = {
        {&SystemCalls::memsetFails, "Failed to memset buf"}, {&SystemCalls::sprintfFails, "Failed to sprintf_s"}};
    for (const auto& [failing, text] : failures) {
        systemCalls().*failing = true;
        EXPECT_EQ(Utils_ProcessRingBufProducerInit(&handle, nullptr, 26214, 0x400000), -1);
        EXPECT_NE(std::exchange(handle, nullptr), nullptr);
        EXPECT_TRUE(FakePlatform::opened().empty());
        EXPECT_EQ(onlyLine(SOURCE, 3, "[%s]:" + text), "[LogCommon]:" + text);
        EXPECT_EQ(CapturedLog::records().size(), 1U);
        CapturedLog::clear();
        systemCalls().*failing = false;
    }
}

TEST_F(RingBuf, FailedOpenShowsWithTheFirstPut)
{
    FakePlatform::settings().openResult = -5;
    FakePlatform::settings().sendResult = -7;
    opened();
    EXPECT_EQ(CapturedLog::records().size(), 1U) << "only the name";
    EXPECT_EQ(put(handle, "record"), -7);
    EXPECT_EQ(CapturedLog::records().size(), 1U) << "the put logs nothing";
}

TEST_F(RingBuf, PutPassesOnTheRecordAndTheInverseOfItsFlag)
{
    opened();
    const std::string record("a\0b", 3);
    for (const int flag : {0, 1, -1, 256}) {
        EXPECT_EQ(put(handle, record, flag), 0);
        const FakePlatform::Sent sent = FakePlatform::sent().back();
        EXPECT_EQ(sent.handle, handle);
        EXPECT_EQ(sent.record, record);
        EXPECT_EQ(sent.data, record.data()) << "no copy";
        EXPECT_EQ(sent.flag, flag == 0 ? 1 : 0);
    }
    EXPECT_EQ(FakePlatform::sent().size(), 4U);
}

TEST_F(RingBuf, PutWidensTheResultWithItsSign)
{
    opened();
    for (const int result : {-1, 1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        FakePlatform::settings().sendResult = result;
        EXPECT_EQ(put(handle, "x"), static_cast<std::int64_t>(result));
    }
}

TEST_F(RingBuf, PutWithoutHandleFailsSilently)
{
    EXPECT_EQ(put(nullptr, "x"), -1);
    EXPECT_TRUE(FakePlatform::sent().empty());
    EXPECT_TRUE(CapturedLog::records().empty());
}

TEST_F(RingBuf, PutHoldsTheHandlesMutexWhileItSends)
{
    opened();
    int locked = 0;
    FakePlatform::settings().onSend = [this, &locked] {
        std::thread([this, &locked] { locked = pthread_mutex_trylock(&handle->m_mutex); }).join();
    };
    put(handle, "x");
    EXPECT_EQ(locked, EBUSY);
    EXPECT_EQ(pthread_mutex_trylock(&handle->m_mutex), 0) << "free again afterwards";
    pthread_mutex_unlock(&handle->m_mutex);
}

}  // namespace
