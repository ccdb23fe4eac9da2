#include "publisher/archive_table.h"

#include "tests/support/sja_builder.h"
#include "tests/unit/publisher/refusals.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

class TableOfAnArchive : public ::testing::Test {
  protected:
    std::string print(const std::string& bytes) {
        write_file(path_, bytes);
        std::ostringstream out;
        print_archive_table(read_archive_table(path_), out);
        return out.str();
    }

    std::string damage_of(const std::string& bytes) {
        write_file(path_, bytes);
        return read_archive_table(path_).damage;
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.path("a.sja");
};

} // namespace

TEST_F(TableOfAnArchive, ShowsEveryEntryInFileOrder) {
    EXPECT_EQ(print(sja_bytes({{"one", "12345", 0644}, {"two", std::string(123456, 't'), 04755}})),
              "MODE      SIZE  NAME\n"
              "0644         5  one\n"
              "4755    123456  two\n"
              "2 entries, unsigned, single package\n");
}

TEST_F(TableOfAnArchive, TellsFormAndKind) {
    EXPECT_EQ(print(sja_bytes_with_signature_block({{"one.sja", "1"}, {"two.SJA", "22", 0}})),
              "MODE    SIZE  NAME\n"
              "0644       1  one.sja\n"
              "0000       2  two.SJA\n"
              "2 entries, signed, envelope\n");
    EXPECT_EQ(print(sja_bytes({{"one", "1", 0100644}})), "MODE    SIZE  NAME\n"
                                                         "100644     1  one\n"
                                                         "1 entry, unsigned, single package\n");
    EXPECT_EQ(print("JANK"), "MODE    SIZE  NAME\n"
                             "0 entries, unsigned, empty\n");
}

TEST_F(TableOfAnArchive, IsCompleteWhereTheRepositoryListsOnlySome) {
    std::vector<SjaEntry> entries;
    for (int i = 1; i <= 40; ++i)
        entries.push_back({"e" + std::to_string(i), "x"});
    write_file(path_, sja_bytes(entries));
    const ArchiveTable table = read_archive_table(path_);
    ASSERT_EQ(table.entries.size(), 40U);
    for (std::size_t i = 0; i < 40; ++i)
        EXPECT_EQ(table.entries[i].name, entries[i].name);
}

TEST_F(TableOfAnArchive, ShowsControlCharactersAsEscapes) {
    EXPECT_EQ(print(sja_bytes({{"a\x1b[2J\n\x7f \xc3\xa9", "x"}})),
              "MODE    SIZE  NAME\n"
              "0644       1  a\\x1b[2J\\x0a\\x7f \xc3\xa9\n"
              "1 entry, unsigned, single package\n");
}

TEST_F(TableOfAnArchive, TellsDamage) {
    const std::string whole = sja_bytes({{"one", "12345"}, {"two", "67"}});
    EXPECT_EQ(damage_of(whole), "");
    EXPECT_EQ(damage_of("JANK"), "");
    EXPECT_EQ(damage_of(sja_bytes_with_signature_block({})), "");
    EXPECT_EQ(damage_of(whole.substr(0, whole.size() - 1)), "the last entry runs past the end of the file");
    EXPECT_EQ(damage_of(whole + "12345678"), "the last entry is followed by bytes that are no entry");
    EXPECT_EQ(damage_of(whole.substr(0, whole.size() - 3)), "the name of the last entry is cut off");
    EXPECT_EQ(damage_of(sja_bytes_with_signature_block({}) + "x"),
              "the magic is followed by bytes that are no entry");
    EXPECT_EQ(read_archive_table(path_).entries.size(), 0U);
}

TEST_F(TableOfAnArchive, IsRefusedForWhatIsNoArchive) {
    write_file(path_, "some text");
    EXPECT_EQ(refusal_of([this] { read_archive_table(path_); }), path_ + " is not an .sja archive");
    EXPECT_EQ(refusal_of([this] { read_archive_table(directory_.path()); }),
              directory_.path() + " is a folder");
    EXPECT_EQ(refusal_of([this] { read_archive_table(directory_.path("missing")); }),
              "cannot read " + directory_.path("missing") + ": No such file or directory");
}
