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

/** A ring, and a producer that opens it. */
class SrvfsClient : public testing::Test
{
protected:
    RingName ring;
    Handle handle;
};

TEST_F(SrvfsClient, RefusesAHandleThatWasNeverOpened)
{
    EXPECT_NE(handle.put("record"), 0);
    EXPECT_NE(client_msgsend(nullptr, "record", 6, 1), 0);
    EXPECT_NE(client_open(nullptr, "name", 64), 0);
}

TEST_F(SrvfsClient, LeavesAHandleUnopenedWhenOpeningFails)
{
    EXPECT_NE(client_open(handle.state(), nullptr, 64), 0);
    EXPECT_NE(client_open(handle.state(), "", 64), 0);
    EXPECT_NE(client_open(handle.state(), "camgate_test/with_slash", 64), 0);
    EXPECT_NE(client_open(handle.state(), std::string(300, 'n').c_str(), 64), 0);
    EXPECT_NE(handle.open(ring, 0), 0);
    EXPECT_NE(handle.open(ring, UINT32_MAX), 0);
    EXPECT_NE(handle.put("record"), 0);
}

TEST_F(SrvfsClient, CreatesSharedMemoryForOwnerAndGroupWhateverTheUmask)
{
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

TEST_F(SrvfsClient, PutsARecordWithLengthFlagAndPadding)
{
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

TEST_F(SrvfsClient, TakesAnEmptyRecordButNoMissingData)
{
    ASSERT_EQ(handle.open(ring, 64), 0);
    EXPECT_EQ(client_msgsend(handle.state(), nullptr, 0, 1), 0);
    EXPECT_NE(client_msgsend(handle.state(), nullptr, 1, 1), 0);
    EXPECT_THAT(RawRing(ring).records(), ElementsAre(""));
}

TEST_F(SrvfsClient, RefusesARecordLargerThanTheRingAndKeepsWhatIsThere)
{
    ASSERT_EQ(handle.open(ring, 64), 0);
    ASSERT_EQ(handle.put("kept"), 0);
    EXPECT_NE(handle.put(std::string(57, 'x')), 0);
    EXPECT_NE(client_msgsend(handle.state(), "x", UINT32_MAX, 1), 0);
    EXPECT_THAT(RawRing(ring).records(), ElementsAre("kept"));
    EXPECT_EQ(handle.put(std::string(56, 'y')), 0);
    EXPECT_THAT(RawRing(ring).records(), ElementsAre(std::string(56, 'y')));
}

TEST_F(SrvfsClient, DropsTheOldestWholeRecordsToMakeRoom)
{
    ASSERT_EQ(handle.open(ring, 64), 0);
    for (const char* record : {"one", "two", "three", "four"}) {
        ASSERT_EQ(handle.put(record), 0);
    }
    EXPECT_THAT(RawRing(ring).records(), ElementsAre("one", "two", "three", "four"));
    ASSERT_EQ(handle.put("more than eight bytes"), 0);
    EXPECT_THAT(RawRing(ring).records(), ElementsAre("three", "four", "more than eight bytes"));
}

TEST_F(SrvfsClient, KeepsEveryRecordWholeOverManyTurnsOfTheRing)
{
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

TEST_F(SrvfsClient, CarriesOnInTheRingOfAnEarlierProducer)
{
    ASSERT_EQ(handle.open(ring, 128), 0);
    ASSERT_EQ(handle.put("earlier"), 0);
    Handle later;
    ASSERT_EQ(later.open(ring, 128), 0);
    ASSERT_EQ(later.put("later"), 0);
    EXPECT_THAT(RawRing(ring).records(), ElementsAre("earlier", "later"));
}

TEST_F(SrvfsClient, OpensAHandleAgain)
{
    const RingName second;
    ASSERT_EQ(handle.open(ring, 128), 0);
    ASSERT_EQ(handle.open(second, 128), 0);
    ASSERT_EQ(handle.put("record"), 0);
    EXPECT_THAT(RawRing(ring).records(), IsEmpty());
    EXPECT_THAT(RawRing(second).records(), ElementsAre("record"));
}

TEST_F(SrvfsClient, ReplacesARingOfAnotherCapacity)
{
    ASSERT_EQ(handle.open(ring, 64), 0);
    ASSERT_EQ(handle.put("small"), 0);
    Handle large;
    ASSERT_EQ(large.open(ring, 4096), 0);
    ASSERT_EQ(large.put("large"), 0);
    EXPECT_EQ(handle.put("unseen"), 0);
    EXPECT_EQ(RawRing(ring).size(), 64U + 4096U);
    EXPECT_THAT(RawRing(ring).records(), ElementsAre("large"));
}

TEST_F(SrvfsClient, EmptiesARingWithADamagedHeader)
{
    struct Damage
    {
        std::size_t offset;
        std::uint64_t value;
    };
    for (const Damage& damage : {Damage{0, 1}, Damage{8, 2}, Damage{16, 8}, Damage{16, UINT64_MAX - 7},
                                 Damage{24, UINT64_MAX}, Damage{24, 136}, Damage{24, 12}}) {
        const RingName damaged;
        Handle earlier;
        ASSERT_EQ(earlier.open(damaged, 128), 0);
        const RawRing raw(damaged);
        std::memcpy(raw.bytes() + damage.offset, &damage.value, sizeof damage.value);
        Handle later;
        ASSERT_EQ(later.open(damaged, 128), 0);
        ASSERT_EQ(later.put("record"), 0);
        EXPECT_THAT(raw.records(), ElementsAre("record")) << damage.offset << ' ' << damage.value;
    }
}

TEST_F(SrvfsClient, SurvivesAnotherProcessThatWritesOverEverything)
{
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

TEST_F(SrvfsClient, RefusesRecordsWhenTheSharedMemoryShrank)
{
    ASSERT_EQ(handle.open(ring, 65536), 0);
    const int descriptor = shm_open(ring.path().c_str(), O_RDWR, 0);
    ASSERT_EQ(ftruncate(descriptor, 0), 0);
    close(descriptor);
    EXPECT_NE(handle.put("record"), 0);
    ASSERT_EQ(handle.open(ring, 65536), 0);
    EXPECT_EQ(handle.put("record"), 0);
}

}  // namespace
