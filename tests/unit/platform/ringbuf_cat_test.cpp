#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/child_process.h"
#include "platform/shared_ring.h"

namespace {

using testing::HasSubstr;

std::vector<std::string> command(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), CAMGATE_BIN_DIR "/ringbuf_cat");
    return arguments;
}

/** A ring with an open producer. */
class RingbufCat : public testing::Test
{
protected:
    void SetUp() override { ASSERT_EQ(handle.open(ring, 4096), 0); }

    void put(const std::vector<std::string>& records)
    {
        for (const std::string& record : records) {
            ASSERT_EQ(handle.put(record), 0);
        }
    }

    /** What the program prints that ends well. */
    static std::string printed(const std::vector<std::string>& arguments)
    {
        Program program(command(arguments));
        const std::string output = program.output();
        EXPECT_EQ(program.exitCode(), 0);
        return output;
    }

    /** What the program complains of that ends with a code. */
    static std::string complaint(const std::vector<std::string>& arguments, int code = 1)
    {
        Program program(command(arguments));
        EXPECT_EQ(program.exitCode(), code);
        return program.errors();
    }

    RingName ring;
    Handle handle;
};

TEST_F(RingbufCat, PrintsEachRecordOfAnotherProcessOnceOnALineOfItsOwn)
{
    put({"{\"first\":1}", "", "third"});
    EXPECT_EQ(printed({ring.name()}), "{\"first\":1}\n\nthird\n");
    put({"fourth"});
    EXPECT_EQ(printed({ring.name()}), "fourth\n");
}

TEST_F(RingbufCat, LeavesOutOneNulAtTheEndAndEscapesControlCharacters)
{
    put({std::string("ends\0", 5), std::string("in\0side\0\0", 9),
         "a\nb\rc\td\x1b[31m\x7f\xc2\x9b\xff \xc3\xa4\xe6\xb1\x89"});
    EXPECT_EQ(printed({ring.name()}),
              "ends\n"
              "in\\x00side\\x00\n"
              "a\\nb\\rc\\td\\x1b[31m\\x7f\\xc2\\x9b\\xff \xc3\xa4\xe6\xb1\x89\n");
}

TEST_F(RingbufCat, StopsAfterTheCountAndLeavesTheRestUnread)
{
    put({"one", "two", "three"});
    EXPECT_EQ(printed({"--count", "2", ring.name()}), "one\ntwo\n");
    EXPECT_EQ(printed({ring.name(), "--count=5"}), "three\n");
}

TEST_F(RingbufCat, PrintsALongRecordWhole)
{
    const RingName large;
    ASSERT_EQ(handle.open(large, 4194304), 0);
    const std::string record(204800, 'x');
    put({record});
    EXPECT_EQ(printed({large.name()}), record + "\n");
}

TEST_F(RingbufCat, FollowsUntilInterruptedOrUpToTheCount)
{
    for (const int interruption : {SIGINT, SIGTERM, 0}) {
        std::vector<std::string> arguments = {"--follow", ring.name()};
        if (interruption == 0) {
            arguments.insert(arguments.end(), {"--count", "2"});
        }
        Program program(command(arguments));
        for (const std::string record : {"first", "second"}) {
            ASSERT_EQ(handle.put(record), 0);
            EXPECT_EQ(program.line(), record);
        }
        program.signal(interruption);  // 0 sends none
        EXPECT_EQ(program.exitCode(), 0);
    }
}

/** The number-th record of a producer in a hurry: long ones, because reading one takes its time. */
std::string hurriedRecord(int number)
{
    const std::size_t length = static_cast<std::size_t>(number) * 7919U % 30000U;
    return std::to_string(number) + ':' + std::string(length, static_cast<char>('a' + number % 26));
}

TEST_F(RingbufCat, PrintsOnlyWholeRecordsInOrderWhileTheProducerOvertakesIt)
{
    constexpr int RECORDS = 8000;
    const RingName large;
    ASSERT_EQ(handle.open(large, 65536), 0);
    const RawRing raw(large);
    // Into a file, so that it never waits for this test.
    const std::filesystem::path printed = std::filesystem::temp_directory_path() / large.name();
    std::ofstream(printed).close();
    Program program(command({"--follow", large.name()}), printed.c_str());
    for (int number = 1; number <= RECORDS; ++number) {
        // Stopped again and again, now and then in the middle of a record that is overwritten before it goes on.
        if (number % 40 == 0) {
            program.signal(SIGSTOP);
        } else if (number % 40 == 10) {
            program.signal(SIGCONT);
        }
        ASSERT_EQ(handle.put(hurriedRecord(number)), 0);
    }
    program.signal(SIGCONT);
    ASSERT_TRUE(raw.waitUntilConsumed());
    program.signal(SIGINT);
    EXPECT_EQ(program.exitCode(), 0);

    std::ifstream lines(printed);
    std::filesystem::remove(printed);
    int previous = 0;
    for (std::string line; std::getline(lines, line);) {
        const int number = std::atoi(line.c_str());
        ASSERT_GT(number, previous);
        ASSERT_TRUE(line == hurriedRecord(number)) << "record " << number << " is not whole";
        previous = number;
    }
    EXPECT_EQ(previous, RECORDS);
}

TEST_F(RingbufCat, SaysHowMuchWasOverwrittenUnread)
{
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(handle.put(std::string(2000, static_cast<char>('a' + i))), 0);
    }
    Program program(command({ring.name()}));
    EXPECT_EQ(program.output(), std::string(2000, 'b') + "\n" + std::string(2000, 'c') + "\n");
    EXPECT_THAT(program.errors(), HasSubstr("2008 bytes of records were overwritten"));
    EXPECT_EQ(program.exitCode(), 0);
}

TEST_F(RingbufCat, SkipsADamagedRecordAndGoesOn)
{
    ASSERT_EQ(handle.put("damaged"), 0);
    const std::uint32_t length = 5000;
    const RawRing raw(ring);
    std::memcpy(raw.bytes() + 64, &length, sizeof length);
    EXPECT_EQ(printed({ring.name()}), "");
    put({"sound"});
    EXPECT_EQ(printed({ring.name()}), "sound\n");
}

TEST_F(RingbufCat, NeverCrashesOverWrongPositions)
{
    const RawRing raw(ring);
    for (const std::uint64_t oldest : {std::uint64_t{1}, std::uint64_t{8}, UINT64_MAX - 7}) {
        for (const std::uint64_t read : {std::uint64_t{3}, std::uint64_t{800}, UINT64_MAX}) {
            ASSERT_EQ(handle.put("record"), 0);
            std::memcpy(raw.bytes() + 16, &oldest, sizeof oldest);
            std::memcpy(raw.bytes() + 32, &read, sizeof read);
            Program program(command({ring.name()}));
            const int code = program.exitCode();
            EXPECT_TRUE(code == 0 || code == 1) << code;
        }
    }
}

TEST_F(RingbufCat, LeavesARecordUnreadThatItCannotPrint)
{
    ASSERT_EQ(handle.put("record"), 0);
    Program failing(command({ring.name()}), "/dev/full");
    EXPECT_EQ(failing.exitCode(), 1);
    EXPECT_THAT(failing.errors(), HasSubstr("No space left on device"));
    EXPECT_EQ(printed({ring.name()}), "record\n");
}

TEST_F(RingbufCat, RefusesASecondReader)
{
    Program reader(command({"--follow", ring.name()}));
    ASSERT_EQ(handle.put("record"), 0);
    ASSERT_EQ(reader.line(), "record");
    EXPECT_THAT(complaint({ring.name()}), HasSubstr("has a reader already"));
}

TEST_F(RingbufCat, SaysWhatToDoAboutAMissingRing)
{
    EXPECT_THAT(complaint({"camgate_test_no_such_ring"}),
                HasSubstr("\"camgate_test_no_such_ring\": No such file or directory. Nobody has "
                          "opened it yet: start the process that fills it first."));
}

TEST_F(RingbufCat, RefusesSharedMemoryThatIsNoRing)
{
    const RawRing raw(ring);
    std::memcpy(raw.bytes(), "SOMETHIN", 8);
    EXPECT_THAT(complaint({ring.name()}), HasSubstr("is no ring buffer that this program knows"));
}

TEST_F(RingbufCat, ExplainsItsUsage)
{
    EXPECT_THAT(printed({"--help"}), HasSubstr("Usage: ringbuf_cat"));
    const std::vector<std::vector<std::string>> wrong = {{},
                                                         {"--count", "0", "name"},
                                                         {"--count", "-1", "name"},
                                                         {"--count", "many", "name"},
                                                         {"--count=many", "name"},
                                                         {"name", "--count"},
                                                         {"one", "two"}};
    for (const std::vector<std::string>& arguments : wrong) {
        EXPECT_THAT(complaint(arguments, 2), HasSubstr("See ringbuf_cat --help."));
    }
}

TEST_F(RingbufCat, NamesTheOptionThatThereIsNot)
{
    for (const std::string option : {"--unknown", "-x", "--follow=1"}) {
        EXPECT_EQ(complaint({"name", option}, 2),
                  "ringbuf_cat: there is no option \"" + option + "\". See ringbuf_cat --help.\n");
    }
}

}  // namespace
