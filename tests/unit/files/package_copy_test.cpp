// How package files get into the repository, with neighbours that fail.

#include "files/QvRepoHelper.h"

#include "platform/file_descriptor.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "tests/support/product_root.h"
#include "tests/support/real_helpers.h"
#include "tests/support/sja_builder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <limits>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr const char* REPO = "/usr/ormex/var/global/repo";

std::function<int(const char*, float*, unsigned long*)> space(float percent, unsigned long megabytes) {
    return [percent, megabytes](const char*, float* percent_free, unsigned long* megabytes_free) {
        *percent_free = percent;
        *megabytes_free = megabytes;
        return 0;
    };
}

class PackageCopy : public ::testing::Test {
  protected:
    PackageCopy() {
        FakeSeam& fake = seam_with_real_helpers();
        fake.verifySja = [](const char*) { return 0; };
        fake.getFreeSpace = space(20.0F, 2000);
        write_file(source_, "the package");
    }

    int copy_as(const std::string& prefix) {
        return QvRepoHelper::copySja(source_.c_str(), destination_, prefix);
    }
    int copy() const { return QvRepoHelper::copySja(source_.c_str()); }
    int extract() const { return QvRepoHelper::extractSja(source_.c_str()); }

    static LogRecord copying(int level, const std::string& text) {
        return {level, "QvRepoHelper::copySja", text};
    }
    static LogRecord extracting(int level, const std::string& text) {
        return {level, "QvRepoHelper::extractSja", text};
    }

    // What a copy logs about a package of `size` MB on a volume of 10000 MB of which 2000 are free.
    static std::vector<LogRecord> about_space(int size, int required) {
        return {copying(2, "Package size: [" + std::to_string(size) + "] MB."),
                copying(2, "Total disk space: [10000] MB."), copying(2, "Free disk space: [2000] MB."),
                copying(2, "Percent free: [20.000000]."),
                copying(2, "Required disk space: [" + std::to_string(required) + "] MB.")};
    }

    static std::vector<LogRecord> joined(std::vector<LogRecord> first, const std::vector<LogRecord>& then) {
        first.insert(first.end(), then.begin(), then.end());
        return first;
    }

    ProductRoot root_;
    TemporaryDirectory directory_;
    std::string source_ = directory_.path("pack.sja");
    std::string in_repo_ = ProductRoot::in_repository("pack.sja");
    std::string destination_ = "untouched";
    LogCapture log_;
};

} // namespace

TEST_F(PackageCopy, PutsThePackageIntoTheRepositoryUnderItsPrefixedName) {
    EXPECT_EQ(copy_as("tmp_"), 0);
    const std::string copy = std::string(REPO) + "/tmp_pack.sja";
    EXPECT_EQ(destination_, copy);
    EXPECT_EQ(read_file(copy), "the package");
    EXPECT_THAT(root_.repository_names(), ElementsAre("tmp_pack.sja"));
    EXPECT_EQ(log_.records(), joined(about_space(0, 150), {copying(4, "Copied package file [" + source_ +
                                                                          "] to [" + copy + "].")}));
    EXPECT_THAT(seam().calls,
                ElementsAre(std::string("pathExists(") + REPO + ")", "verifySja(" + source_ + ")",
                            std::string("getFreeSpace(") + REPO + ")",
                            "fileCOPY(" + source_ + ", " + copy + ")"));
}

TEST_F(PackageCopy, Reports7217WithoutTheRepository) {
    std::filesystem::remove(REPO);
    EXPECT_EQ(copy_as("tmp_"), 7217);
    EXPECT_EQ(destination_, "untouched");
    EXPECT_THAT(
        log_.records(),
        ElementsAre(copying(16, std::string("Package repository location does not exist: [") + REPO + "].")));
    EXPECT_THAT(seam().calls, ElementsAre(std::string("pathExists(") + REPO + ")"));
}

TEST_F(PackageCopy, ReturnsTheCodeOfAFailedVerification) {
    seam().verifySja = [](const char*) { return 7236; };
    EXPECT_EQ(copy_as(""), 7236);
    EXPECT_EQ(destination_, "untouched");
    EXPECT_THAT(log_.records(),
                ElementsAre(copying(16, "Package verification for input file [" + source_ +
                                            "] failed. Error code returned from verifySja: 7236.")));
    EXPECT_THAT(root_.repository_names(), IsEmpty());
}

TEST_F(PackageCopy, GoesAheadWhileOneAndAHalfPerCentOfTheDiskStayFree) {
    write_sparse_file(source_, std::uint64_t{1800} << 20);
    seam().fileCOPY = [](const char*, const char*) { return 0; };
    EXPECT_EQ(copy_as(""), 0);
    EXPECT_EQ(log_.records(), joined(about_space(1800, 1950), {copying(4, "Copied package file [" + source_ +
                                                                              "] to [" + in_repo_ + "].")}));
}

TEST_F(PackageCopy, Reports7214WithoutTheSpace) {
    write_sparse_file(source_, std::uint64_t{1900} << 20);
    EXPECT_EQ(copy_as(""), 7214);
    EXPECT_EQ(destination_, in_repo_);
    EXPECT_EQ(log_.records(), joined(about_space(1900, 2050),
                                     {copying(16, "Not enough disk space to copy the package file.")}));
    EXPECT_THAT(root_.repository_names(), IsEmpty());
}

TEST_F(PackageCopy, NeedsTheRequiredSpaceAndNotMore) {
    seam().fileCOPY = [](const char*, const char*) { return 0; };
    const struct {
        std::uint64_t size;
        unsigned long megabytes;
        float percent;
        int status;
        const char* total;
        const char* required;
    } cases[] = {
        // Exactly as much as is free is enough; parts of a megabyte of the package do not count.
        {std::uint64_t{1850} << 20, 2000, 20.0F, 0, "10000", "2000"},
        {(std::uint64_t{1850} << 20) + 1048575, 2000, 20.0F, 0, "10000", "2000"},
        {std::uint64_t{1851} << 20, 2000, 20.0F, 7214, "10000", "2001"},
        // The total is derived from the free figures in double precision and cut to whole megabytes.
        {0, 1000, 33.333333F, 0, "3000", "45"},
        {0, 1000, 30.0F, 0, "3333", "49"},
        {0, 10, 100.0F, 0, "10", "0"},
        // A package of 4 GiB and more.
        {std::uint64_t{5000} << 20, 5150, 51.5F, 0, "10000", "5150"},
        {std::uint64_t{5001} << 20, 5150, 51.5F, 7214, "10000", "5151"},
        // The share in single precision: double precision would come to just below these figures.
        {0, 100000000, 50.0F, 0, "200000000", "3000000"},
        {0, 5000000, 0.5F, 7214, "1000000000", "15000000"},
        // So is the sum, which here is a tie between two such numbers: double precision would give 8388609.
        {std::uint64_t{2} << 20, 559240500, 100.0F, 0, "559240500", "8388610"},
    };
    for (const auto& c : cases) {
        write_sparse_file(source_, c.size);
        seam().getFreeSpace = space(c.percent, c.megabytes);
        EXPECT_EQ(copy_as(""), c.status) << c.size << " of " << c.megabytes;
        const std::vector<LogRecord> records = log_.records();
        EXPECT_EQ(records[records.size() - 5],
                  copying(2, std::string("Total disk space: [") + c.total + "] MB."));
        EXPECT_EQ(records[records.size() - 2],
                  copying(2, std::string("Required disk space: [") + c.required + "] MB."));
    }
}

TEST_F(PackageCopy, IsRefusedOnAVolumeWithoutAnyFreeSpace) {
    seam().getFreeSpace = space(0.0F, 0);
    EXPECT_EQ(copy_as(""), 7214);
    seam().getFreeSpace = space(std::numeric_limits<float>::quiet_NaN(), 0);
    EXPECT_EQ(copy_as(""), 7214);
    EXPECT_EQ(log_.records().back(), copying(16, "Not enough disk space to copy the package file."));
}

TEST_F(PackageCopy, IsTriedWhenTheFreeSpaceIsUnknown) {
    seam().getFreeSpace = [](const char*, float*, unsigned long*) { return 11; };
    EXPECT_EQ(copy_as(""), 0);
    EXPECT_THAT(log_.records(),
                ElementsAre(copying(2, "Package size: [0] MB."),
                            copying(16, "Attempt to resolve free disk space returned error code [11]."),
                            copying(4, "Copied package file [" + source_ + "] to [" + in_repo_ + "].")));
    EXPECT_THAT(root_.repository_names(), ElementsAre("pack.sja"));
}

TEST_F(PackageCopy, CopiesNothingWhenThePackageIsInTheRepository) {
    source_ = in_repo_;
    write_file(source_, "the package");
    EXPECT_EQ(copy_as(""), 0);
    EXPECT_EQ(log_.records(),
              joined(about_space(0, 150), {copying(4, "[" + source_ + "] to [" + in_repo_ +
                                                          "] are the same file, no file copy necessary.")}));
    EXPECT_THAT(seam().calls,
                ElementsAre(std::string("pathExists(") + REPO + ")", "verifySja(" + source_ + ")",
                            std::string("getFreeSpace(") + REPO + ")"));
    EXPECT_EQ(read_file(in_repo_), "the package");
}

TEST_F(PackageCopy, OfAPackageInTheRepositoryThatCannotBeBroughtToTheDiskReports7214) {
    source_ = in_repo_;
    write_file(source_, "the package");
    const int result = with_failing_syscall(SYS_fsync, EIO, [this] {
        return copy_as("") == 7214 &&
                       log_.records().back() ==
                           copying(16, "Unable to copy package file [" + source_ + "] to [" + REPO + "].")
                   ? 7
                   : 8;
    });
    EXPECT_EQ(result, 7);
}

TEST_F(PackageCopy, CopiesNothingThatIsInTheRepositoryEvenWithoutSpace) {
    source_ = in_repo_;
    write_file(source_, "the package");
    seam().getFreeSpace = space(1.0F, 1);
    EXPECT_EQ(copy_as(""), 0);
}

TEST_F(PackageCopy, LogsTheCopyBeforeItsFailure) {
    seam().fileCOPY = [](const char*, const char*) { return ENOSPC; };
    EXPECT_EQ(copy_as(""), 7214);
    EXPECT_EQ(destination_, in_repo_);
    EXPECT_EQ(log_.records(),
              joined(about_space(0, 150),
                     {copying(4, "Copied package file [" + source_ + "] to [" + in_repo_ + "]."),
                      copying(16, "Unable to copy package file [" + source_ + "] to [" + REPO + "].")}));
}

TEST_F(PackageCopy, ReplacesAnEarlierPackageOfThatName) {
    write_file(in_repo_, "an earlier package");
    EXPECT_EQ(copy_as(""), 0);
    EXPECT_EQ(read_file(in_repo_), "the package");
    EXPECT_THAT(root_.repository_names(), ElementsAre("pack.sja"));
}

TEST_F(PackageCopy, OfAPathWithoutABaseNameIsNamedByItsPrefix) {
    EXPECT_EQ(QvRepoHelper::copySja("/", destination_, "tmp_"), 7214);
    EXPECT_EQ(destination_, std::string(REPO) + "/tmp_");
}

TEST_F(PackageCopy, OfASinglePackageVerifiesTwice) {
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(read_file(in_repo_), "the package");
    EXPECT_THAT(seam().calls,
                ElementsAre(std::string("pathExists(") + REPO + ")", "verifySja(" + source_ + ")",
                            "copySja(" + source_ + ", , )", std::string("pathExists(") + REPO + ")",
                            "verifySja(" + source_ + ")", std::string("getFreeSpace(") + REPO + ")",
                            "fileCOPY(" + source_ + ", " + in_repo_ + ")"));
}

TEST_F(PackageCopy, OfASinglePackageReports7217WithoutTheRepository) {
    seam().pathExists = [](const char*) { return false; };
    EXPECT_EQ(copy(), 7217);
    EXPECT_THAT(
        log_.records(),
        ElementsAre(copying(16, std::string("Package repository location does not exist: [") + REPO + "].")));
}

TEST_F(PackageCopy, OfASinglePackageShowsTheCodeInBrackets) {
    seam().verifySja = [](const char*) { return 7237; };
    EXPECT_EQ(copy(), 7237);
    EXPECT_THAT(log_.records(),
                ElementsAre(copying(16, "Package verification for input file [" + source_ +
                                            "] failed. Error code returned from verifySja: [7237].")));
}

TEST_F(PackageCopy, OfASinglePackageReturnsTheStatusOfTheCopy) {
    seam().copySjaAs = [](const char*, std::string&, const std::string&) { return 7214; };
    EXPECT_EQ(copy(), 7214);
    EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_F(PackageCopy, OfAnEnvelopeLeavesItsPackagesAlone) {
    write_file(source_, sja_bytes({{"one.sja", "1"}, {"two.sja", "22"}}));
    EXPECT_EQ(extract(), 0);
    const std::string temporary = std::string(REPO) + "/tmp_pack.sja";
    EXPECT_THAT(root_.repository_names(), ElementsAre("one.sja", "two.sja"));
    EXPECT_EQ(read_file(ProductRoot::in_repository("two.sja")), "22");
    EXPECT_TRUE(std::filesystem::exists(source_));
    EXPECT_EQ(log_.records(),
              joined(about_space(0, 150),
                     {copying(4, "Copied package file [" + source_ + "] to [" + temporary + "]."),
                      extracting(4, "Extracting [" + source_ + "] to [" + REPO + "]."),
                      extracting(2, "Running do_extract [" + temporary + "] to [" + REPO + "]."),
                      extracting(4, "Successfully extracted [" + source_ + "] to [" + REPO + "].")}));
    EXPECT_EQ(seam().calls.front(), "copySja(" + source_ + ", , tmp_)");
    EXPECT_EQ(seam().calls.back(), "do_extract(" + temporary + ", " + REPO + ")");
}

TEST_F(PackageCopy, OfAnEnvelopeThatCannotBeExtractedReports7252) {
    // One entry is in place before the other fails; it stays, the temporary copy does not.
    write_file(source_, sja_bytes({{"one.sja", "1"}, {"two.sja", "22"}}));
    std::filesystem::create_directory(ProductRoot::in_repository("one.sja"));
    EXPECT_EQ(extract(), 7252);
    EXPECT_THAT(root_.repository_names(), ElementsAre("one.sja", "two.sja"));
    EXPECT_EQ(log_.records().back(),
              extracting(16, "Failed extracting [" + source_ + "] to directory [" + REPO + "]"));
    EXPECT_EQ(seam().calls.back(), std::string("fileDELETE(") + REPO + "/tmp_pack.sja)");
}

TEST_F(PackageCopy, OfAnEnvelopeLogsATemporaryCopyThatStays) {
    seam().do_extract = [](const char*, const char*) { return 0; };
    seam().fileDELETE = [](const char*) { return EBUSY; };
    EXPECT_EQ(extract(), 7252);
    EXPECT_EQ(log_.records().back(), extracting(16, std::string("Could not delete temporary package file [") +
                                                        REPO + "/tmp_pack.sja]."));
}

TEST_F(PackageCopy, OfAnEnvelopeThatFailsRemovesTheTemporaryCopy) {
    seam().fileCOPY = [](const char*, const char* to) {
        write_file(to, "half");
        return EIO;
    };
    EXPECT_EQ(extract(), 7214);
    EXPECT_THAT(root_.repository_names(), IsEmpty());
    const std::vector<LogRecord> records = log_.records();
    ASSERT_GE(records.size(), 2U);
    EXPECT_EQ(
        records[records.size() - 2],
        extracting(
            16, "Failed to copy the input sja file to repository. Error code returned from copySja 7214."));
    EXPECT_EQ(records.back(),
              extracting(4, std::string("Removing temporary package file [") + REPO + "/tmp_pack.sja]."));
}

TEST_F(PackageCopy, OfAnEnvelopeThatFailsEarlyTriesToRemoveTheEmptyPath) {
    for (const int code : {7217, 7236}) {
        seam().pathExists = [code](const char*) { return code != 7217; };
        seam().verifySja = [](const char*) { return 7236; };
        EXPECT_EQ(extract(), code);
        const std::vector<LogRecord> records = log_.records();
        ASSERT_GE(records.size(), 3U);
        EXPECT_EQ(
            records[records.size() - 3],
            extracting(16,
                       "Failed to copy the input sja file to repository. Error code returned from copySja " +
                           std::to_string(code) + "."));
        EXPECT_EQ(records[records.size() - 2], extracting(4, "Removing temporary package file []."));
        EXPECT_EQ(records.back(), extracting(16, "Could not delete temporary package file []."));
        EXPECT_EQ(seam().calls.back(), "fileDELETE()");
    }
}

TEST_F(PackageCopy, OfAnEnvelopeReplacesATemporaryCopyThatAKillLeft) {
    write_file(ProductRoot::in_repository("tmp_pack.sja"), "left");
    write_file(source_, sja_bytes({{"one.sja", "1"}}));
    EXPECT_EQ(extract(), 0);
    EXPECT_THAT(root_.repository_names(), ElementsAre("one.sja"));
}

TEST_F(PackageCopy, OfAnEnvelopeReports7252WhileAnotherProcessExtractsItsTemporaryCopy) {
    const std::string temporary = ProductRoot::in_repository("tmp_pack.sja");
    write_file(temporary, "another's");
    write_file(source_, sja_bytes({{"one.sja", "1"}}));
    const FileDescriptor other(open(temporary.c_str(), O_RDONLY));
    ASSERT_EQ(flock(other.get(), LOCK_EX), 0);
    EXPECT_EQ(extract(), 7252);
    EXPECT_THAT(log_.records(), ElementsAre(extracting(16, "Failed extracting [" + source_ +
                                                               "] to directory [" + REPO + "]")));
    EXPECT_THAT(seam().calls, IsEmpty());
    EXPECT_EQ(read_file(temporary), "another's");
    EXPECT_THAT(root_.repository_names(), ElementsAre("tmp_pack.sja"));
}

// The other one began between the copy and the extraction.
TEST_F(PackageCopy, OfAnEnvelopeLeavesATemporaryCopyThatAnotherProcessExtracts) {
    FileDescriptor other;
    write_file(source_, sja_bytes({{"one.sja", "1"}}));
    seam().do_extract = [&other](const char* archive, const char* directory) {
        other = FileDescriptor(open(archive, O_RDONLY));
        EXPECT_EQ(flock(other.get(), LOCK_EX), 0);
        return do_extract(archive, directory);
    };
    EXPECT_EQ(extract(), 7252);
    EXPECT_THAT(root_.repository_names(), ElementsAre("tmp_pack.sja"));
    EXPECT_EQ(log_.records().back(), extracting(16, std::string("Could not delete temporary package file [") +
                                                        REPO + "/tmp_pack.sja]."));
}

// Else whoever may read it could lock it, and no envelope of that name could be added.
TEST_F(PackageCopy, OfAnEnvelopeCanBeOpenedByNobodyElse) {
    write_file(source_, sja_bytes({{"one.sja", "1"}}));
    struct stat status = {};
    seam().do_extract = [&status](const char* archive, const char* directory) {
        EXPECT_EQ(stat(archive, &status), 0);
        return do_extract(archive, directory);
    };
    const mode_t mask = umask(022);
    EXPECT_EQ(extract(), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    EXPECT_EQ(umask(mask), 022U) << "the mask is as it was";
}
