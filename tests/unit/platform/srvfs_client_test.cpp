#include "srvfs_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "platform/shared_ring.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(SrvfsCalloc, GivesZeroedMemory)
{
    auto* const bytes = static_cast<unsigned char*>(srvfs_calloc(3, 100));
    ASSERT_NE(bytes, nullptr);
    EXPECT_TRUE(std::all_of(bytes, bytes + 300, [](unsigned char byte) { return byte == 0; }));
}

TEST(SrvfsCalloc, RefusesASizeThatOverflows)
{
    EXPECT_EQ(srvfs_calloc(SIZE_MAX / 2, 3), nullptr);
    EXPECT_EQ(srvfs_calloc(SIZE_MAX, SIZE_MAX), nullptr);
}

TEST(SrvfsClient, RefusesAHandleThatWasNeverOpened)
{
    Handle handle;
    EXPECT_NE(handle.put("record"), 0);
    EXPECT_NE(client_msgsend(nullptr, "record", 6, 1), 0);
    EXPECT_NE(client_open(nullptr, "name", 64), 0);
}

TEST(SrvfsClient, LeavesAHandleUnopenedWhenOpeningFails)
{
    Handle handle;
    EXPECT_NE(client_open(handle.state(), nullptr, 64), 0);
    EXPECT_NE(client_open(handle.state(), "", 64), 0);
    EXPECT_NE(client_open(handle.state(), "camgate_test/with_slash", 64), 0);
    EXPECT_NE(client_open(handle.state(), std::string(300, 'n').c_str(), 64), 0);
    const RingName ring;
    EXPECT_NE(handle.open(ring, 0), 0);
    EXPECT_NE(handle.open(ring, UINT32_MAX), 0);
    EXPECT_NE(handle.put("record"), 0);
}

TEST(SrvfsClient, CreatesSharedMemoryForOwnerAndGroupWhateverTheUmask)
{
    const RingName ring;
    Handle handle;
    const mode_t before = umask(0777);
    const int result = handle.open(ring, 4194304);
    umask(before);
    ASSERT_EQ(result, 0);
    const RawRing raw(ring);
    EXPECT_EQ(raw.mode(), 0660U);
    EXPECT_EQ(raw.size(), 64U + 4194304U);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(raw.bytes()), 8), "CAMSRING");
    EXPECT_EQ(raw.number<std::uint32_t>(8), 1U);
    EXPECT_EQ(raw.number<std::uint32_t>(12), 4194304U);
    EXPECT_EQ(raw.end(), 0U);
}

TEST(SrvfsClient, PutsARecordWithLengthFlagAndPadding)
{
    const RingName ring;
    Handle handle;
    ASSERT_EQ(handle.open(ring, 64), 0);
    ASSERT_EQ(handle.put("hello", 7), 0);
    const RawRing raw(ring);
    EXPECT_EQ(raw.oldest(), 0U);
    EXPECT_EQ(raw.end(), 16U);
    EXPECT_EQ(raw.number<std::uint32_t>(40), 1U);
    EXPECT_EQ(raw.number<std::uint32_t>(64), 5U);
    EXPECT_EQ(raw.number<std::uint32_t>(68), 7U);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(raw.bytes()) + 72, 5), "hello");
}

TEST(SrvfsClient, KeepsALongRecordWhole)
{
    const RingName ring;
    Handle handle;
    ASSERT_EQ(handle.open(ring, 4194304), 0);
    std::string record(204800, '\0');
    std::minstd_rand random(1);
    std::generate(record.begin(), record.end(), [&random] { return static_cast<char>(random() & 0xFFU); });
    ASSERT_EQ(handle.put(record), 0);
    EXPECT_THAT(RawRing(ring).records(), ElementsAre(record));
}

TEST(SrvfsClient, TakesAnEmptyRecordButNoMissingData)
{
    const RingName ring;
    Handle handle;
    ASSERT_EQ(handle.open(ring, 64), 0);
    EXPECT_EQ(client_msgsend(handle.state(), nullptr, 0, 1), 0);
    EXPECT_NE(client_msgsend(handle.state(), nullptr, 1, 1), 0);
    EXPECT_THAT(RawRing(ring).records(), ElementsAre(""));
}

TEST(SrvfsClient, RefusesARecordLargerThanTheRingAndKeepsWhatIsThere)
{
    const RingName ring;
    Handle handle;
    ASSERT_EQ(handle.open(ring, 64), 0);
    ASSERT_EQ(handle.put("kept"), 0);
    EXPECT_NE(handle.put(std::string(57, 'x')), 0);
    EXPECT_NE(client_msgsend(handle.state(), "x", UINT32_MAX, 1), 0);
    EXPECT_THAT(RawRing(ring).records(), ElementsAre("kept"));
    EXPECT_EQ(handle.put(std::string(56, 'y')), 0);
    EXPECT_THAT(RawRing(ring).records(), ElementsAre(std::string(56, 'y')));
}

TEST(SrvfsClient, DropsTheOldestWholeRecordsToMakeRoom)
{
    const RingName ring;
    Handle handle;
    ASSERT_EQ(handle.open(ring, 64), 0);
    for (const char* record : {"one", "two", "three", "four"}) {
        ASSERT_EQ(handle.put(record), 0);
    }
    EXPECT_THAT(RawRing(ring).records(), ElementsAre("one", "two", "three", "four"));
    ASSERT_EQ(handle.put("more than eight bytes"), 0);
    EXPECT_THAT(RawRing(ring).records(), ElementsAre("three", "four", "more than eight bytes"));
}

TEST(SrvfsClient, KeepsEveryRecordWholeOverManyTurnsOfTheRing)
{
    const RingName ring;
    Handle handle;
    ASSERT_EQ(handle.open(ring, 1000), 0);
    const RawRing raw(ring);
    std::vector<std::string> put;
    std::minstd_rand random(2);
    for (int i = 0; i < 5000; ++i) {
        put.emplace_back(random() % 300, static_cast<char>('a' + i % 26));
        ASSERT_EQ(handle.put(put.back()), 0);
        const std::vector<std::string> there = raw.records();
        ASSERT_FALSE(there.empty());
        ASSERT_LE(there.size(), put.size());
        ASSERT_TRUE(std::equal(there.rbegin(), there.rend(), put.rbegin()));
    }
}

TEST(SrvfsClient, CarriesOnInTheRingOfAnEarlierProducer)
{
    const RingName ring;
    Handle earlier;
    ASSERT_EQ(earlier.open(ring, 128), 0);
    ASSERT_EQ(earlier.put("earlier"), 0);
    Handle later;
    ASSERT_EQ(later.open(ring, 128), 0);
    ASSERT_EQ(later.put("later"), 0);
    EXPECT_THAT(RawRing(ring).records(), ElementsAre("earlier", "later"));
}

TEST(SrvfsClient, OpensAHandleAgain)
{
    const RingName first;
    const RingName second;
    Handle handle;
    ASSERT_EQ(handle.open(first, 128), 0);
    ASSERT_EQ(handle.open(second, 128), 0);
    ASSERT_EQ(handle.put("record"), 0);
    EXPECT_THAT(RawRing(first).records(), IsEmpty());
    EXPECT_THAT(RawRing(second).records(), ElementsAre("record"));
}

TEST(SrvfsClient, ReplacesARingOfAnotherCapacity)
{
    const RingName ring;
    Handle small;
    ASSERT_EQ(small.open(ring, 64), 0);
    ASSERT_EQ(small.put("small"), 0);
    Handle large;
    ASSERT_EQ(large.open(ring, 4096), 0);
    ASSERT_EQ(large.put("large"), 0);
    EXPECT_EQ(small.put("unseen"), 0);
    EXPECT_EQ(RawRing(ring).size(), 64U + 4096U);
    EXPECT_THAT(RawRing(ring).records(), ElementsAre("large"));
}

TEST(SrvfsClient, EmptiesARingWithADamagedHeader)
{
    struct Damage
    {
        std::size_t offset;
        std::uint64_t value;
    };
    for (const Damage& damage : {Damage{0, 1}, Damage{8, 2}, Damage{16, 8}, Damage{16, UINT64_MAX - 7},
                                 Damage{24, UINT64_MAX}, Damage{24, 136}, Damage{24, 12}}) {
        const RingName ring;
        Handle earlier;
        ASSERT_EQ(earlier.open(ring, 128), 0);
        const RawRing raw(ring);
        std::memcpy(raw.bytes() + damage.offset, &damage.value, sizeof damage.value);
        Handle later;
        ASSERT_EQ(later.open(ring, 128), 0);
        ASSERT_EQ(later.put("record"), 0);
        EXPECT_THAT(raw.records(), ElementsAre("record")) << damage.offset << ' ' << damage.value;
    }
}

TEST(SrvfsClient, SurvivesAnotherProcessThatWritesOverEverything)
{
    const RingName ring;
    Handle handle;
    ASSERT_EQ(handle.open(ring, 512), 0);
    const RawRing raw(ring);
    std::minstd_rand random(3);
    for (int round = 0; round < 2000; ++round) {
        ASSERT_EQ(handle.put(std::string(random() % 200, 'x')), 0);
        std::generate(raw.bytes(), raw.bytes() + raw.size(), [&random, round] {
            return round % 3 == 0 ? 0xFFU : round % 3 == 1 ? 0U : static_cast<unsigned char>(random());
        });
    }
    ASSERT_EQ(handle.put(std::string(504, 'y')), 0);
    EXPECT_THAT(raw.records(), ElementsAre(std::string(504, 'y')));
}

TEST(SrvfsClient, RefusesRecordsWhenTheSharedMemoryShrank)
{
    const RingName ring;
    Handle handle;
    ASSERT_EQ(handle.open(ring, 65536), 0);
    const int descriptor = shm_open(ring.path().c_str(), O_RDWR, 0);
    ASSERT_EQ(ftruncate(descriptor, 0), 0);
    close(descriptor);
    EXPECT_NE(handle.put("record"), 0);
    ASSERT_EQ(handle.open(ring, 65536), 0);
    EXPECT_EQ(handle.put("record"), 0);
}

}  // namespace
