#include "publisher/archive.h"

#include "tests/support/child_process.h"
#include "tests/support/sja_builder.h"
#include "tests/unit/publisher/user_errors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr const char* FORM =
    "it is not of the form dunmarel_TYPE_VERSION_OS.sja or dunmarel_TYPE_EEBVERSION_VERSION_OS.sja";

class TableOfAnArchive : public ::testing::Test {
  protected:
    std::string print(const std::string& bytes) {
        write_file(path_, bytes);
        std::ostringstream out;
        Archive(path_).print(out);
        return out.str();
    }

    ArchiveSummary summary_of(const std::string& bytes) {
        write_file(path_, bytes);
        return Archive(path_).walk([](const ArchiveEntry&) {});
    }
    std::string damage_of(const std::string& bytes) { return summary_of(bytes).damage; }

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
    std::size_t i = 0;
    Archive(path_).walk([&](const ArchiveEntry& entry) { EXPECT_EQ(entry.name, entries.at(i++).name); });
    EXPECT_EQ(i, 40U);
}

TEST_F(TableOfAnArchive, ShowsControlCharactersAsEscapes) {
    EXPECT_EQ(print(sja_bytes({{"a\x1b[2J\n\x7f \xc3\xa9", "x"}})),
              "MODE    SIZE  NAME\n"
              "0644       1  a\\x1b[2J\\x0a\\x7f \xc3\xa9\n"
              "1 entry, unsigned, single package\n");
}

TEST(PrintableText, IsUtf8WithoutControlCharacters) {
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {" ~", " ~"},
        {std::string(1, '\0') + "\x1f", "\\x00\\x1f"},
        {"\xc2\x80\xc2\x9b\xc2\x9f", "\\xc2\\x80\\xc2\\x9b\\xc2\\x9f"},
        {"\xc2\xa0\xdf\xbf", "\xc2\xa0\xdf\xbf"},
        {"\xe0\xa0\x80\xe2\x82\xac\xef\xbf\xbd", "\xe0\xa0\x80\xe2\x82\xac\xef\xbf\xbd"},
        {"\xf0\x90\x80\x80\xf4\x8f\xbf\xbf", "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf"},
        // A terminal that does not decode UTF-8, or not well, takes these for control characters.
        {"\x9b", "\\x9b"},
        {"\xc1\x9b", "\\xc1\\x9b"},
        {"\xe0\x82\x9b", "\\xe0\\x82\\x9b"},
        {"\xf0\x80\x82\x9b", "\\xf0\\x80\\x82\\x9b"},
        {"\xf8\x80\x80\x82\x9b", "\\xf8\\x80\\x80\\x82\\x9b"},
        // Neither are these characters.
        {"\xc3", "\\xc3"},
        {"\xc3z\xe2\x82z", "\\xc3z\\xe2\\x82z"},
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
    };
    for (const auto& [text, shown] : cases)
        EXPECT_EQ(printable(text), shown);
}

TEST_F(TableOfAnArchive, TellsDamage) {
    const std::string whole = sja_bytes({{"one", "12345"}, {"two", "67"}});
    EXPECT_EQ(damage_of(whole), "");
    EXPECT_EQ(damage_of("JANK"), "");
    EXPECT_EQ(damage_of(sja_bytes_with_signature_block({})), "");
    EXPECT_EQ(damage_of(whole.substr(0, whole.size() - 1)), "the last entry runs past the end of the file");
    EXPECT_EQ(damage_of(whole + "12345678"), "the last entry is followed by bytes that are not an entry");
    EXPECT_EQ(damage_of(whole.substr(0, whole.size() - 3)), "the name of the last entry is cut off");
    EXPECT_EQ(damage_of(sja_bytes_with_signature_block({}) + "x"),
              "the magic is followed by bytes that are not an entry");
    EXPECT_EQ(summary_of(sja_bytes_with_signature_block({}) + "x").entry_count, 0U);
    EXPECT_EQ(summary_of(whole.substr(0, whole.size() - 3)).entry_count, 1U);
}

TEST_F(TableOfAnArchive, IsRefusedForWhatIsNoArchive) {
    write_file(path_, "some text");
    EXPECT_EQ(error_of([this] { Archive{path_}; }), path_ + " is not an .sja archive");
    EXPECT_EQ(error_of([this] { Archive{directory_.path()}; }), directory_.path() + " is a directory");
    EXPECT_EQ(error_of([this] { Archive{directory_.path("missing")}; }),
              "cannot read " + directory_.path("missing") + ": No such file or directory");
}

TEST_F(TableOfAnArchive, TakesTheSameMemoryForAnyNumberOfEntries) {
    const auto read = [this](std::uint64_t size) {
        write_file(path_, "JANK");
        // Zeros are entries without names and data.
        std::filesystem::resize_file(path_, 4 + size);
        std::ostream nowhere(nullptr);
        EXPECT_EQ(Archive(path_).print(nowhere).entry_count, size / 11);
        examine_signable(path_);
    };
    const long growth = memory_growth([&] { read(11); }, [&] { read(std::uint64_t{11} << 17); });
    EXPECT_GE(growth, 0);
    EXPECT_LT(growth, 1024);
}

TEST(PackageName, IsFaultlessOrHasAReason) {
    const std::pair<std::string, std::string> cases[] = {
        {"dunmarel_qvclient_8.3.0.1_redhat_x64.sja", ""},
        {"qvclient_8.3_redhat_x64.sja", ""},
        {"dunmarel_qveeb.server_3.1_8.1.2_suse_ppc64le.sja", ""},
        {"dunmarel_maint.qv_8.2_windows_x64", ""},
        {"", FORM},
        {"dunmarel_", FORM},
        {"package.sja", FORM},
        {"dunmarel_qvclient_8.0_redhat.sja", FORM},
        {"dunmarel_qvtool_8.0_redhat_x64.sja", "its package type is unknown"},
        {"x_dunmarel_qvclient_8.3_redhat_x64.sja", "its package type is unknown"},
        {"dunmarel_qvclient_7.6_redhat_x64.sja", "its version is missing or lower than 7.7"},
        {"dunmarel_qvclient_beta_redhat_x64.sja", "its version is missing or lower than 7.7"},
        {"dunmarel_qvclient_8.0_centos_x64.sja", "its operating system is unknown"},
        {"dunmarel_qveeb_3.1a_8.0_redhat_x64.sja", "its EEB version is not up to 12 digits and dots"},
        {"dunmarel_qvclient_8.3_redhat_x64." + std::string(120, 'x'), "it is longer than 127 bytes"},
    };
    for (const auto& [name, fault] : cases)
        EXPECT_EQ(package_name_fault(name), fault) << name;
}

class Warnings : public ::testing::Test {
  protected:
    std::vector<std::string> about(const std::string& name, const std::vector<SjaEntry>& entries) const {
        write_file(directory_.path(name), sja_bytes(entries));
        return Archive(directory_.path(name))
            .walk([](const ArchiveEntry&) {})
            .warnings(directory_.path(name));
    }

    TemporaryDirectory directory_;
};

TEST_F(Warnings, AreNoneForASinglePackageWithAGoodName) {
    EXPECT_THAT(about("dunmarel_qvclient_8.3_redhat_x64.sja",
                      {{"inner.sja", "1"}, {"any name", "1"}, {"inner.sja", "1"}}),
                IsEmpty());
}

TEST_F(Warnings, CoverTheEntriesOfAnEnvelope) {
    EXPECT_THAT(about("bad.sja", {{"dunmarel_qvclient_8.3_redhat_x64.sja", "1"}, {"x.sja", "1"}}),
                ElementsAre(std::string("bad.sja is not a package name: ") + FORM,
                            std::string("x.sja is not a package name: ") + FORM));
}

TEST_F(Warnings, CoverTheFirst1000Names) {
    const std::vector<SjaEntry> entries(1003, SjaEntry{"x.sja", "1"});
    const std::vector<std::string> warnings = about("dunmarel_qvclient_8.3_redhat_x64.sja", entries);
    ASSERT_EQ(warnings.size(), 1001U);
    EXPECT_EQ(warnings[999], std::string("x.sja is not a package name: ") + FORM);
}

TEST_F(Warnings, CoverMoreEntriesThanARepositoryLists) {
    std::vector<SjaEntry> entries(15, SjaEntry{"file", "1"});
    EXPECT_THAT(about("dunmarel_qvclient_8.3_redhat_x64.sja", entries), IsEmpty());
    entries.push_back({"one more", "1"});
    EXPECT_THAT(
        about("dunmarel_qvclient_8.3_redhat_x64.sja", entries),
        ElementsAre("a repository lists only the first entries of an archive of more than 15; this one has "
                    "16"));
}
