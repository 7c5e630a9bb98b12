#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "public/utils/alg_utils/utils_srvfs_eventcache.h"
#include "support/captured_log.h"
#include "support/event_cache.h"
#include "support/log_line.h"
#include "support/raw_bytes.h"
#include "support/system_calls.h"
#include "support/waiting.h"

namespace {

const char SOURCE[] = "public/utils/alg_utils/utils_srvfs_eventcache";
const char OLD_PRODUCER[] = "[%s]:Producter Version is below 8.0.1";

class Buffer : public testing::Test
{
protected:
    Buffer()
    {
        handle.nEventFd = cache.eventDescriptor();
        handle.nCacheFd = cache.cacheDescriptor();
        std::memset(&data, 0x5A, sizeof data);
    }

    int get(const std::string& notification)
    {
        cache.notify(notification);
        return Utils_EventCacheBufGet(&handle, &data);
    }

    /// Gets a buffer of these bytes with a notification that tells its length.
    int getBlock(const std::string& block)
    {
        cache.setBuffer(block);
        return get(EventCache::notification(static_cast<std::uint32_t>(block.size())));
    }

    /// Expects a failed exchange: -2 and one error, the record untouched and no mapping left.
    /// @param text  of the error; any when empty
    void expectFailed(int result, const std::string& what, const std::string& text = "")
    {
        EXPECT_EQ(result, -2) << what;
        ASSERT_EQ(CapturedLog::records().size(), 1U) << what;
        const std::string logged = onlyLine(SOURCE, 3, CapturedLog::records()[0].format);
        EXPECT_EQ(logged.substr(0, 12), "[LogCommon]:") << what;
        EXPECT_TRUE(text.empty() || logged == "[LogCommon]:" + text) << what << ": " << logged;
        expectUntouched();
        EXPECT_FALSE(cache.hasMapping()) << what;
        CapturedLog::clear();
    }

    void expectUntouched() const { EXPECT_EQ(bytesOf(data), std::string(sizeof data, 0x5A)); }

    EventCache cache;
    EventCacheHndl handle = {};
    EventCacheBufData data;
};

TEST_F(Buffer, IsMappedAndDescribedByFieldsInOrder)
{
    cache.setBuffer(EventCache::block(5, bytes("text\0")));
    ASSERT_EQ(get(EventCache::notification(61)), 0);

    EXPECT_STREQ(data.pData, "text");
    EXPECT_EQ(data.nReserved, 0x5A5A5A5AU) << "never written";
    const std::string record = bytesOf(data);
    constexpr std::size_t POINTER = sizeof(void*);
    EXPECT_EQ(numberAt<std::uintptr_t>(record, 0), reinterpret_cast<std::uintptr_t>(data.pData));
    EXPECT_EQ(numberAt<std::uint32_t>(record, POINTER), 5U);
    EXPECT_EQ(numberAt<std::uintptr_t>(record, POINTER + 8), numberAt<std::uintptr_t>(record, 0) - 56);
    EXPECT_EQ(numberAt<std::uint32_t>(record, 2 * POINTER + 8), 61U);
    EXPECT_TRUE(CapturedLog::records().empty());
}

TEST_F(Buffer, MapRequestToTheByte)
{
    cache.setBuffer(EventCache::block(200, std::string(200, 'x')));
    ASSERT_EQ(get(EventCache::notification(256, 0xA1B2C3D4, 0x99887766)), 0);
    EXPECT_EQ(cache.mapRequests(),
              (std::vector<std::string>{bytes("\0\0\0\0\xD4\xC3\xB2\xA1\0\x01\0\0\x66\x77\x88\x99")}));
}

TEST_F(Buffer, DescriptorIsTakenFromItsOffset)
{
    cache.setBuffer(EventCache::block(4, "data"));
    for (const std::uint16_t offset : std::vector<std::uint16_t>{10, 11, 100, 239, 240}) {
        const std::string gap(offset - 10U, '\x33');
        EXPECT_EQ(get(EventCache::head(0, 200, offset) + gap + EventCache::descriptor(60, offset)), 0) << offset;
        EXPECT_EQ(numberAt<std::uint32_t>(cache.mapRequests().back(), 4), offset);
        EXPECT_EQ(Utils_EventCacheBufRelease(&handle, &data), 0);
    }
    EXPECT_TRUE(CapturedLog::records().empty());
}

TEST_F(Buffer, DescriptorMayBeTheWholeNotification)
{
    // The head overlaps the descriptor: status 200, and the offset 0 is the lower half of the length.
    cache.setBuffer(EventCache::block(4, std::string(65536 - 56, 'x')));
    EXPECT_EQ(get(bytes("\x11\x22\0\0\0\0\xC8\0\0\0\x01\0\x33\x44\x55\x66")), 0);
    EXPECT_EQ(cache.mapRequests(), (std::vector<std::string>{bytes("\0\0\0\0\x11\x22\0\0\0\0\x01\0\x33\x44\x55\x66")}));
    EXPECT_EQ(data.nDataLen, 4U);
}

TEST_F(Buffer, DescriptorBeyondWhatWasReadIsRefused)
{
    const std::string descriptor = EventCache::descriptor(60);
    cache.setBuffer(EventCache::block(4, "data"));
    for (const std::uint16_t offset : std::vector<std::uint16_t>{11, 12, 25, 26, 240, 256, 257, 65519, 65520, 65535}) {
        expectFailed(get(EventCache::head(0, 200, offset) + descriptor), "offset " + std::to_string(offset));
    }
    for (std::size_t cut = 1; cut <= 16; ++cut) {
        expectFailed(get(EventCache::head(0, 200, 10) + descriptor.substr(cut)), "cut by " + std::to_string(cut));
    }
    EXPECT_TRUE(cache.mapRequests().empty());
}

TEST_F(Buffer, NothingBeyond256BytesIsRead)
{
    cache.setBuffer(EventCache::block(4, "data"));
    const std::string packet =
        EventCache::head(0, 200, 241) + std::string(231, '\x33') + EventCache::descriptor(60) + "more";
    expectFailed(get(packet), "the descriptor ends at 257");
}

TEST_F(Buffer, NotificationShorterThanItsHeadIsRefused)
{
    // All that a notification without buffer needs is its first 8 bytes; with a buffer it needs the offset, too.
    for (const std::size_t size : {1U, 4U, 6U, 7U, 8U, 9U}) {
        expectFailed(get(EventCache::head(0, 200, 10).substr(0, size)), std::to_string(size) + " bytes");
    }
}

TEST_F(Buffer, ServiceThatHasGoneIsABadStatus)
{
    cache.closeService();
    expectFailed(Utils_EventCacheBufGet(&handle, &data), "end of file", "read code err: 0");
}

TEST_F(Buffer, BadStatusIsRefusedAndTold)
{
    for (const std::uint16_t status : std::vector<std::uint16_t>{0, 199, 201, 404, 65535}) {
        expectFailed(get(EventCache::head(1, status, 10) + EventCache::descriptor(60)), "a status",
                     "read code err: " + std::to_string(status));
    }
    EXPECT_TRUE(cache.mapRequests().empty());
}

TEST_F(Buffer, NotificationWithoutBufferLeavesTheRecordAsItWas)
{
    for (const std::uint16_t mark : std::vector<std::uint16_t>{1, 255, 256, 65535}) {
        EXPECT_EQ(get(EventCache::head(mark, 200, 10) + EventCache::descriptor(60)), 0) << mark;
    }
    EXPECT_EQ(get(EventCache::head(1, 200, 60000)), 0) << "its offset is not looked at";
    expectUntouched();
    EXPECT_TRUE(cache.mapRequests().empty());
    EXPECT_TRUE(CapturedLog::records().empty());
}

TEST_F(Buffer, FailedMappingTellsTheErrorNumber)
{
    for (const int error : {ENOENT, EINVAL, ENOMEM}) {
        cache.mapError = error;
        expectFailed(get(EventCache::notification(60)), "mapping", "ioctl fail errno " + std::to_string(error) + " ");
    }
}

TEST_F(Buffer, MissingCacheDriverShowsWithTheFirstMapping)
{
    handle.nCacheFd = -1;
    const int result = get(EventCache::notification(60));
    // EBADF, or what an emulator says of a request that it does not know.
    char argument[16] = {};
    ASSERT_EQ(::syscall(SYS_ioctl, -1, 0x80100701, argument), -1);
    expectFailed(result, "no driver", "ioctl fail errno " + std::to_string(errno) + " ");
}

TEST_F(Buffer, MappingWithoutAddressIsRefused)
{
    expectFailed(get(EventCache::notification(60, EventCache::WITHOUT_ADDRESS)), "address 0");
}

TEST_F(Buffer, LengthThatCannotHoldTheHeaderIsRefused)
{
    for (const std::uint32_t length : {0U, 1U, 52U, 55U}) {
        cache.setBuffer(std::string(length, 'x'));
        expectFailed(get(EventCache::notification(length)), "length " + std::to_string(length));
    }
}

TEST_F(Buffer, HeaderAloneIsABufferWithoutData)
{
    ASSERT_EQ(getBlock(EventCache::block(0, "")), 0);
    EXPECT_EQ(data.nDataLen, 0U);
    EXPECT_EQ(data.stMMapAddr.length, 56U);
    EXPECT_TRUE(CapturedLog::records().empty());
}

TEST_F(Buffer, DataLengthBeyondTheMappingIsRefused)
{
    for (const std::uint32_t claimed : {101U, 108U, 156U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFC8U, 0xFFFFFFFFU}) {
        expectFailed(getBlock(EventCache::block(claimed, std::string(100, 'x'))), std::to_string(claimed));
    }
    // With 8 added these wrap around to what follows the header.
    expectFailed(getBlock(EventCache::block(0xFFFFFFF8U, "")), "wraps to 0");
    expectFailed(getBlock(EventCache::block(0xFFFFFFFCU, "four")), "wraps to 4");
}

TEST_F(Buffer, DataUpToTheEndOfTheMappingAreTaken)
{
    ASSERT_EQ(getBlock(EventCache::block(100, std::string(100, 'x'))), 0);
    EXPECT_EQ(std::string(data.pData, data.nDataLen), std::string(100, 'x'));
}

TEST_F(Buffer, SixtyFourBytesMoreThanDataMeanAnOlderProducer)
{
    for (const std::string text : {"", "datas"}) {
        ASSERT_EQ(getBlock(EventCache::block(static_cast<std::uint32_t>(text.size()), "12345678" + text)), 0);
        EXPECT_EQ(data.pData, static_cast<char*>(data.stMMapAddr.pBufData) + 64);
        EXPECT_EQ(std::string(data.pData, data.nDataLen), text);
        EXPECT_EQ(data.stMMapAddr.length, 64 + text.size());
        EXPECT_EQ(CapturedLog::records().size(), 1U);
        EXPECT_EQ(onlyLine(SOURCE, 1, OLD_PRODUCER), "[LogCommon]:Producter Version is below 8.0.1");
        CapturedLog::clear();
        EXPECT_EQ(Utils_EventCacheBufRelease(&handle, &data), 0);
    }
}

TEST_F(Buffer, OtherDifferencesMeanANewProducer)
{
    for (const std::size_t more : {0U, 1U, 7U, 9U, 16U, 64U}) {
        ASSERT_EQ(getBlock(EventCache::block(5, "datas" + std::string(more, '.'))), 0) << more;
        EXPECT_EQ(data.pData, static_cast<char*>(data.stMMapAddr.pBufData) + 56) << more;
        EXPECT_EQ(Utils_EventCacheBufRelease(&handle, &data), 0);
    }
    EXPECT_TRUE(CapturedLog::records().empty());
}

TEST_F(Buffer, EachGetTakesOneNotification)
{
    cache.setBuffer(EventCache::block(4, "data"));
    cache.notify(EventCache::notification(60, 1));
    cache.notify(EventCache::notification(60, 2));
    EXPECT_EQ(Utils_EventCacheBufGet(&handle, &data), 0);
    EXPECT_EQ(cache.mapRequests().size(), 1U);
    EXPECT_TRUE(cache.hasUnread());
}

TEST_F(Buffer, GetRefusesANullHandleAndThenANullRecord)
{
    cache.notify(EventCache::notification(60));
    expectFailed(Utils_EventCacheBufGet(nullptr, nullptr), "no handle", "pstEventCacheHndl NULL");
    expectFailed(Utils_EventCacheBufGet(&handle, nullptr), "no record", "pstBufData NULL");
    EXPECT_TRUE(cache.hasUnread());
}

/// The counter lives as long as the process, so all that concerns it is one test.
TEST_F(Buffer, FailedReadsPauseAndOneOf500IsLogged)
{
    handle.nEventFd = -1;
    const Stopwatch stopwatch;
    expectFailed(Utils_EventCacheBufGet(&handle, &data), "first", "read NULL");
    EXPECT_GE(stopwatch.elapsed(), std::chrono::milliseconds(200));

    std::vector<useconds_t> pauses;
    systemCalls().usleep = [&pauses](useconds_t microseconds) { pauses.push_back(microseconds); };
    for (int failure = 2; failure <= 500; ++failure) {
        EXPECT_EQ(Utils_EventCacheBufGet(&handle, &data), -2);
    }
    EXPECT_TRUE(CapturedLog::records().empty()) << "failures 2 to 500";
    expectFailed(Utils_EventCacheBufGet(&handle, &data), "failure 501", "read NULL");
    EXPECT_EQ(pauses, std::vector<useconds_t>(500, 200000));
}

class Release : public testing::Test
{
protected:
    void expectRefused(EventCacheHndl* pHandle, EventCacheBufData* pData, const std::string& message)
    {
        CapturedLog::clear();
        systemCalls().munmap = [](void*, std::size_t) -> std::optional<int> {
            ADD_FAILURE() << "nothing may be unmapped";
            return -1;
        };
        EXPECT_EQ(Utils_EventCacheBufRelease(pHandle, pData), -2);
        systemCalls().munmap = nullptr;
        EXPECT_EQ(onlyLine(SOURCE, 3, "[%s]:" + message), "[LogCommon]:" + message);
        EXPECT_EQ(CapturedLog::records().size(), 1U);
    }

    EventCacheHndl handle = {};
    EventCacheBufData data = {};
    char text[1] = "";
};

TEST_F(Release, UnmapsTheBufferAndKeepsTheFields)
{
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    void* const mapping = ::mmap(nullptr, page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(mapping, MAP_FAILED);
    data.pData = static_cast<char*>(mapping) + 56;
    data.nDataLen = 4;
    data.stMMapAddr.pBufData = mapping;
    data.stMMapAddr.length = static_cast<std::uint32_t>(page);
    const std::string before = bytesOf(data);

    EXPECT_EQ(Utils_EventCacheBufRelease(&handle, &data), 0);
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    EXPECT_EQ(::write(ends[1], mapping, 1), -1);
    EXPECT_EQ(errno, EFAULT) << "unmapped";
    EXPECT_EQ(bytesOf(data), before);
    EXPECT_TRUE(CapturedLog::records().empty());
}

TEST_F(Release, ChecksInOrder)
{
    expectRefused(nullptr, nullptr, "pstEventCacheHndl NULL");
    expectRefused(nullptr, &data, "pstEventCacheHndl NULL");
    expectRefused(&handle, nullptr, "pstBufData NULL");
    expectRefused(&handle, &data, "pstBufData NULL");
    data.pData = text;
    expectRefused(&handle, &data, "stMMapAddr pBufData NULL");
    data.stMMapAddr.pBufData = text;
    expectRefused(&handle, &data, "stMMapAddr length NULL");
    data.stMMapAddr.pBufData = nullptr;
    data.stMMapAddr.length = 1;
    expectRefused(&handle, &data, "stMMapAddr pBufData NULL");
    data.pData = nullptr;
    expectRefused(&handle, &data, "pstBufData NULL");
}

}  // namespace
