#include "tests/unit/files/archive_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include <unistd.h>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class ArchiveWalk : public ::testing::Test {
  protected:
    std::vector<Block> walk(const std::string& bytes, std::uint64_t base = 0) {
        write_file(path_, bytes);
        return blocks_of(path_, base);
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.path("a.sja");
};

} // namespace

TEST_F(ArchiveWalk, FindsTheEntriesFromTheLastToTheFirst) {
    const std::string bytes =
        sja_bytes({{"one", "12345", 0644}, {"second", "", 0755}, {"3", "xyz", 0107777}});

    EXPECT_THAT(walk(bytes), ElementsAre(Block{4 + 19 + 17, 3, 1, 3, 0107777}, Block{4 + 19, 2, 6, 0, 0755},
                                         Block{4, 1, 3, 5, 0644}));
}

TEST_F(ArchiveWalk, StartsAfterTheSignatureBlockInTheSignedForm) {
    EXPECT_THAT(walk(sja_bytes_with_signature_block({{"one", "12345"}}), 512),
                ElementsAre(Block{516, 1, 3, 5, 0644}));
}

TEST_F(ArchiveWalk, FindsNothingAfterABareMagic) {
    EXPECT_THAT(walk("JANK"), IsEmpty());
}

TEST_F(ArchiveWalk, EndsWithTheLastWholeHeaderWhereverTheFileIsCut) {
    const std::string whole = sja_bytes({{"one", "12345"}, {"second", "123"}});
    const std::size_t second = sja_bytes({{"one", "12345"}}).size();
    const Block first = {4, 1, 3, 5, 0644};
    // The two bytes of the mode are not needed to be an entry; a byte that is missing counts as 0.
    for (std::size_t length = second; length <= whole.size(); ++length) {
        const std::vector<Block> blocks = walk(whole.substr(0, length));
        const std::size_t header = length - second;
        if (header < 9) {
            EXPECT_THAT(blocks, ElementsAre(first)) << length;
            continue;
        }
        const unsigned mode = header == 9 ? 0U : header == 10 ? 0644U & 0xFFU : 0644U;
        EXPECT_THAT(blocks, ElementsAre(Block{second, 2, 6, 3, mode}, first)) << length;
    }
}

TEST_F(ArchiveWalk, ListsALastEntryThatRunsPastTheEndOfTheFile) {
    EXPECT_THAT(walk("JANK" + sja_entry_header("big", 1000) + "only this"),
                ElementsAre(Block{4, 1, 3, 1000, 0644}));
    EXPECT_THAT(walk("JANK" + sja_entry_header("a name", 0).substr(0, 13)),
                ElementsAre(Block{4, 1, 6, 0, 0644}));
}

TEST_F(ArchiveWalk, EndsAtASizeThatLeadsPastTheLargestOffset) {
    const std::string tail = SjaEntry{"never reached", "x"}.bytes();
    const std::uint64_t largest_offset = std::numeric_limits<std::int64_t>::max();
    // The first entry's data begins at 4 + 11 + 1. The last three sizes would lead back to the entry itself,
    // to the magic and to the next entry, were offsets to wrap around.
    for (const std::uint64_t size : {largest_offset - 15, largest_offset - 16, largest_offset,
                                     largest_offset + 1, std::numeric_limits<std::uint64_t>::max(),
                                     std::uint64_t{0} - 12, std::uint64_t{0} - 16, std::uint64_t{0} - 1}) {
        EXPECT_THAT(walk("JANK" + sja_entry_header("a", size) + tail),
                    ElementsAre(Block{4, 1, 1, size, 0644}))
            << size;
    }
}

TEST_F(ArchiveWalk, CountsEntriesWithoutNameAndData) {
    EXPECT_THAT(walk("JANK" + std::string(33, '\0')),
                ElementsAre(Block{26, 3, 0, 0, 0}, Block{15, 2, 0, 0, 0}, Block{4, 1, 0, 0, 0}));
}

TEST_F(ArchiveWalk, FindsNothingInAStreamThatCannotSeekOrCannotBeRead) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const FileStream reading(fdopen(ends[0], "rb"));
    const FileStream writing(fdopen(ends[1], "wb"));
    EXPECT_EQ(get_blocks(reading.get(), 0), nullptr);

    const FileStream directory(std::fopen(directory_.path().c_str(), "rb"));
    EXPECT_EQ(get_blocks(directory.get(), 0), nullptr);
}

TEST_F(ArchiveWalk, PassesEntriesOfMoreThan2GiBAndArchivesOfMoreThan4GiB) {
    const std::uint64_t size = (std::uint64_t{2} << 30) + 12345;
    const std::uint64_t entry = 11 + 1 + size;
    write_sparse_file(path_, 4 + 3 * entry);
    overwrite_at(path_, 0, "JANK");
    const std::string names[] = {"a", "b", "c"};
    for (std::uint64_t i = 0; i < 3; ++i)
        overwrite_at(path_, 4 + i * entry, sja_entry_header(names[i], size));

    EXPECT_THAT(blocks_of(path_, 0),
                ElementsAre(Block{4 + 2 * entry, 3, 1, size, 0644}, Block{4 + entry, 2, 1, size, 0644},
                            Block{4, 1, 1, size, 0644}));
    EXPECT_THAT(lines_of(listing_of(path_)),
                ElementsAre("c 2147495993 644 " + std::to_string(4 + 2 * entry + 12),
                            "b 2147495993 644 " + std::to_string(4 + entry + 12), "a 2147495993 644 16"));
}
