#include "tests/support/small_volume.h"
#include "tests/unit/files/archive_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include <sys/stat.h>

using ::testing::ElementsAre;

namespace {

class ArchiveListing : public ::testing::Test {
  protected:
    std::vector<std::string> list(const std::string& bytes) {
        write_file(path_, bytes);
        return lines_of(listing_of(path_));
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.path("a.sja");
};

std::string one_byte_entry(int number) {
    // Names have two letters up to e9, three from e10 on.
    const int bytes_before = number <= 10 ? (number - 1) * 14 : 9 * 14 + (number - 10) * 15;
    const int name_length = number < 10 ? 2 : 3;
    return "e" + std::to_string(number) + " 1 644 " + std::to_string(4 + bytes_before + 11 + name_length);
}

} // namespace

TEST_F(ArchiveListing, ListsNameSizeModeAndDataOffsetFromTheLastEntryToTheFirst) {
    EXPECT_THAT(list(sja_bytes({{"one.sja", "12345", 0600}, {"two.txt", "", 0107755}})),
                ElementsAre("two.txt 0 107755 45", "one.sja 5 600 22"));
}

TEST_F(ArchiveListing, CountsOffsetsFromTheStartOfTheFileInTheSignedForm) {
    EXPECT_THAT(list(sja_bytes_with_signature_block({{"one.sja", "12345"}})),
                ElementsAre("one.sja 5 644 534"));
}

TEST_F(ArchiveListing, LeavesTheArchiveAlone) {
    const std::string bytes = sja_bytes({{"one", "12345"}, {"two", "1"}});
    list(bytes);
    EXPECT_EQ(read_file(path_), bytes);
}

TEST_F(ArchiveListing, FailsOnWhatIsNotAnArchive) {
    EXPECT_THAT(lines_of(listing_of(directory_.path("missing"))), ElementsAre("none"));
    EXPECT_THAT(lines_of(listing_of(directory_.path())), ElementsAre("none"));
    EXPECT_THAT(list(""), ElementsAre("none"));
    EXPECT_THAT(list("JAN"), ElementsAre("none"));
    EXPECT_THAT(list("some text that is long enough"), ElementsAre("none"));
}

TEST_F(ArchiveListing, FailsOnAPipeAndDoesNotWaitForItsWriter) {
    ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
    EXPECT_EQ(stat_archive(path_.c_str()), nullptr);
}

TEST_F(ArchiveListing, FailsOnAnArchiveWithoutEntries) {
    EXPECT_THAT(list("JANK"), ElementsAre("none"));
    EXPECT_THAT(list(sja_bytes_with_signature_block({})), ElementsAre("none"));
    EXPECT_THAT(list("JANK12345678"), ElementsAre("none"));
}

TEST_F(ArchiveListing, FailsWhenANameIsCutOff) {
    const std::string whole = sja_bytes({{"one", "12345"}}) + sja_entry_header("second", 0);
    for (std::size_t missing = 1; missing <= 6; ++missing)
        EXPECT_THAT(list(whole.substr(0, whole.size() - missing)), ElementsAre("none")) << missing;
    EXPECT_THAT(list(whole), ElementsAre("second 0 644 40", "one 5 644 18"));
}

TEST_F(ArchiveListing, KeepsAnEntryWhoseDataIsCutOff) {
    EXPECT_THAT(list("JANK" + sja_entry_header("big", 1000) + "only this"), ElementsAre("big 1000 644 18"));
    EXPECT_THAT(list("JANK" + sja_entry_header("huge", std::numeric_limits<std::uint64_t>::max())),
                ElementsAre("huge 18446744073709551615 644 19"));
}

// On a volume that sets no limit of its own, the system still refuses to fill a buffer that near to the
// limit.
TEST_F(ArchiveListing, KeepsAnEntryWhoseSizeLeadsCloseToTheLargestOffset) {
    const SmallVolume volume("size=64k");
    const std::uint64_t largest_offset = std::numeric_limits<std::int64_t>::max();
    for (const std::uint64_t distance : {0U, 1U, 11U, 67U, 4095U, 4096U, 8192U, 262143U, 262144U, 300000U}) {
        const std::uint64_t size = largest_offset - distance - 16;
        write_file(volume.path("a.sja"), "JANK" + sja_entry_header("a", size));
        EXPECT_THAT(lines_of(listing_of(volume.path("a.sja"))),
                    ElementsAre("a " + std::to_string(size) + " 644 16"))
            << distance;
    }
}

TEST_F(ArchiveListing, KeepsAnEntryWithoutANameEvenAtTheEndOfTheFile) {
    EXPECT_THAT(list("JANK" + sja_entry_header("", 0)), ElementsAre(" 0 644 15"));
    EXPECT_THAT(list("JANK" + sja_entry_header("", 0).substr(0, 9)), ElementsAre(" 0 0 15"));
}

TEST_F(ArchiveListing, EndsANameAtItsFirstNulByte) {
    EXPECT_THAT(list(sja_bytes({{std::string("a\0b", 3), "x"}})), ElementsAre("a 1 644 18"));
}

TEST_F(ArchiveListing, HoldsNamesOf255Bytes) {
    const std::string name(255, 'n');
    EXPECT_THAT(list(sja_bytes({{name, "x"}})), ElementsAre(name + " 1 644 270"));
}

TEST_F(ArchiveListing, IsCompleteUpTo15Entries) {
    const std::vector<std::string> lines = list(sja_bytes(numbered_entries(15)));
    ASSERT_EQ(lines.size(), 15U);
    for (int i = 0; i < 15; ++i)
        EXPECT_EQ(lines[static_cast<std::size_t>(i)], one_byte_entry(15 - i));
}

TEST_F(ArchiveListing, KeepsOnlyTwoOfTheFirst16SlotsWhenTheTableGrows) {
    std::vector<std::string> lines = list(sja_bytes(numbered_entries(16)));
    ASSERT_EQ(lines.size(), 16U);
    EXPECT_EQ(lines[0], one_byte_entry(16));
    EXPECT_EQ(lines[1], one_byte_entry(15));
    for (std::size_t i = 2; i < 16; ++i)
        EXPECT_EQ(lines[i], "-") << i;

    lines = list(sja_bytes(numbered_entries(17)));
    ASSERT_EQ(lines.size(), 17U);
    EXPECT_EQ(lines[0], one_byte_entry(17));
    EXPECT_EQ(lines[1], one_byte_entry(16));
    EXPECT_EQ(lines[2], "-");
    EXPECT_EQ(lines[15], "-");
    EXPECT_EQ(lines[16], one_byte_entry(1));
}

TEST_F(ArchiveListing, KeepsOnlyTheFirstFourSlotsAtItsSecondGrowth) {
    const std::vector<std::string> lines = list(sja_bytes(numbered_entries(33)));
    ASSERT_EQ(lines.size(), 33U);
    EXPECT_EQ(lines[0], one_byte_entry(33));
    EXPECT_EQ(lines[1], one_byte_entry(32));
    // Slots 2 and 3 are carried over this time, empty as the first growth left them.
    for (std::size_t i = 2; i < 32; ++i)
        EXPECT_EQ(lines[i], "-") << i;
    EXPECT_EQ(lines[32], one_byte_entry(1));
}

TEST(ReleaseFunctions, AcceptNothing) {
    free_block_list(nullptr);
    free_stat_entry(nullptr);
    free_stat_array(nullptr);
}
