// Listing what a package file contains, and deleting a package's files.

#include "files/QvRepoHelper.h"

#include "model/QvRepoPackage.h"
#include "tests/support/log_capture.h"
#include "tests/support/real_helpers.h"
#include "tests/unit/files/archive_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class PackageContents : public ::testing::Test {
  protected:
    PackageContents() { seam_with_real_helpers(); }

    // "NAME SIZE" of every item that the call appends, after its status.
    std::vector<std::string> read(const std::string& path) {
        std::vector<QvRepoPackageItem> items;
        std::vector<std::string> lines = {std::to_string(QvRepoHelper::readSjaContents(path.c_str(), items))};
        for (const QvRepoPackageItem& item : items)
            lines.push_back(item.fileName + " " + std::to_string(item.fileSize));
        return lines;
    }

    LogRecord reading(const std::string& path) const {
        return {4, "QvRepoHelper::readSjaContents", "Reading package contents in [" + path + "]."};
    }
    LogRecord envelope(const std::string& text) const { return {4, "QvRepoHelper::isSjaEnvelope", text}; }

    TemporaryDirectory directory_;
    std::string path_ = directory_.path("pack.sja");
    LogCapture log_;
};

} // namespace

TEST_F(PackageContents, OfAnEnvelopeAreItsEntriesFromTheLastToTheFirst) {
    write_file(path_, sja_bytes({{"one.sja", "12345", 0644}, {"two.SJA", "", 0100755}}));

    EXPECT_THAT(read(path_), ElementsAre("0", "two.SJA 0", "one.sja 5"));
    EXPECT_THAT(log_.records(), ElementsAre(reading(path_), envelope("Contents of the sja file:"),
                                            envelope("two.SJA|0|100755"), envelope("one.sja|5|644"),
                                            envelope("The package is an sja envelope.")));
    EXPECT_THAT(seam().calls, ElementsAre("pathExists(" + path_ + ")", "stat_archive(" + path_ + ")"));
}

TEST_F(PackageContents, OfASinglePackageAreTheFileItself) {
    // One entry that is a package and one that is not: both are logged before the verdict.
    write_file(path_, sja_bytes({{"inner.sja", "12345"}, {"readme.txt", "x", 0600}}));

    EXPECT_THAT(read(path_),
                ElementsAre("0", "pack.sja " + std::to_string(std::filesystem::file_size(path_))));
    EXPECT_THAT(log_.records(), ElementsAre(reading(path_), envelope("Contents of the sja file:"),
                                            envelope("readme.txt|1|600"), envelope("inner.sja|5|644"),
                                            envelope("The package is not an sja envelope.")));
}

TEST_F(PackageContents, AreAppendedToWhatTheListHolds) {
    write_file(path_, sja_bytes({{"one.sja", "12345"}}));
    std::vector<QvRepoPackageItem> items = {{"there before", 1}};
    EXPECT_EQ(QvRepoHelper::readSjaContents(path_.c_str(), items), 0);
    ASSERT_EQ(items.size(), 2U);
    EXPECT_EQ(items[0].fileName, "there before");
    EXPECT_EQ(items[1].fileName, "one.sja");
}

TEST_F(PackageContents, SkipTheSlotsThatALongListingLoses) {
    std::vector<SjaEntry> entries;
    for (int i = 1; i <= 17; ++i)
        entries.push_back({std::to_string(i) + ".sja", std::string(static_cast<std::size_t>(i), 'x')});
    write_file(path_, sja_bytes(entries));

    EXPECT_THAT(read(path_), ElementsAre("0", "17.sja 17", "16.sja 16", "1.sja 1"));
    EXPECT_THAT(log_.records(),
                ElementsAre(reading(path_), envelope("Contents of the sja file:"), envelope("17.sja|17|644"),
                            envelope("16.sja|16|644"), envelope("1.sja|1|644"),
                            envelope("The package is an sja envelope.")));
}

TEST_F(PackageContents, OfAMissingFileAre7225) {
    EXPECT_THAT(read(path_), ElementsAre("7225"));
    EXPECT_THAT(log_.records(),
                ElementsAre(reading(path_),
                            LogRecord{16, "QvRepoHelper::readSjaContents",
                                      "Failed to read package content. Supplied .sja file does not exist: [" +
                                          path_ + "]."}));
    EXPECT_THAT(seam().calls, ElementsAre("pathExists(" + path_ + ")"));
}

TEST_F(PackageContents, OfAFileThatIsNotAnArchiveAre7215) {
    write_file(path_, "no archive");
    EXPECT_THAT(read(path_), ElementsAre("7215"));
    EXPECT_THAT(log_.records(),
                ElementsAre(reading(path_), LogRecord{16, "QvRepoHelper::readSjaContents",
                                                      "Failed to stat sja file [" + path_ + "]."}));
}

TEST_F(PackageContents, OfANullPathAre7225) {
    std::vector<QvRepoPackageItem> items;
    EXPECT_EQ(QvRepoHelper::readSjaContents(nullptr, items), 7225);
    EXPECT_THAT(items, IsEmpty());
}

TEST_F(PackageContents, OfAnEmptyListingAreThoseOfAnEnvelope) {
    seam().pathExists = [](const char*) { return true; };
    seam().stat_archive = [](const char*) { return new stat_array(); };
    EXPECT_THAT(read(path_), ElementsAre("0"));
    EXPECT_THAT(log_.records(), ElementsAre(reading(path_), envelope("Contents of the sja file:"),
                                            envelope("The package is an sja envelope.")));
}

namespace {

class Deletion : public ::testing::Test {
  protected:
    Deletion() { seam_with_real_helpers(); }

    LogRecord record(int level, const std::string& text) const {
        return {level, "QvRepoHelper::deletePackageItems", text};
    }

    TemporaryDirectory directory_;
    std::string first_ = directory_.path("first.sja");
    std::string second_ = directory_.path("second.sja");
    LogCapture log_;
};

} // namespace

TEST_F(Deletion, OfNothingSucceeds) {
    EXPECT_EQ(QvRepoHelper::deletePackageItems({}), 1);
    EXPECT_THAT(log_.records(), IsEmpty());
    EXPECT_THAT(seam().calls, IsEmpty());
}

TEST_F(Deletion, DeletesEveryPath) {
    write_file(first_, "1");
    write_file(second_, "2");
    EXPECT_EQ(QvRepoHelper::deletePackageItems({first_, second_}), 1);
    EXPECT_THAT(directory_.names(), IsEmpty());
    EXPECT_THAT(log_.records(), ElementsAre(record(4, "Deleted package item " + first_ + "."),
                                            record(4, "Deleted package item " + second_ + ".")));
    EXPECT_THAT(seam().calls, ElementsAre("fileDELETE(" + first_ + ")", "fileDELETE(" + second_ + ")"));
}

TEST_F(Deletion, TriesAMissingPathAndGoesOn) {
    write_file(second_, "2");
    EXPECT_EQ(QvRepoHelper::deletePackageItems({first_, second_}), 0);
    EXPECT_THAT(directory_.names(), IsEmpty());
    EXPECT_THAT(log_.records(), ElementsAre(record(16, "Package item " + first_ + " does not exist."),
                                            record(16, "Failed to delete package item " + first_ + "."),
                                            record(4, "Deleted package item " + second_ + ".")));
}

TEST_F(Deletion, ReportsTheOutcomeOfTheAttemptEvenForAMissingPath) {
    seam().fileDELETE = [](const char*) { return 0; };
    EXPECT_EQ(QvRepoHelper::deletePackageItems({first_}), 1);
    EXPECT_THAT(log_.records(), ElementsAre(record(16, "Package item " + first_ + " does not exist."),
                                            record(4, "Deleted package item " + first_ + ".")));
}

TEST_F(Deletion, GoesOnAfterAFailure) {
    write_file(first_, "1");
    write_file(second_, "2");
    seam().fileDELETE = [this](const char* path) { return path == first_ ? EACCES : fileDELETE(path); };
    EXPECT_EQ(QvRepoHelper::deletePackageItems({first_, second_}), 0);
    EXPECT_THAT(directory_.names(), ElementsAre("first.sja"));
    EXPECT_THAT(log_.records(), ElementsAre(record(16, "Failed to delete package item " + first_ + "."),
                                            record(4, "Deleted package item " + second_ + ".")));
}
