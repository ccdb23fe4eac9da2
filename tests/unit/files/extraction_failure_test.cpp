// Extraction when the system itself fails: whatever happens, no half file has an entry's name, and no entry
// is cut off the archive before its file is in place.

#include "platform/interruption.h"
#include "tests/support/child_process.h"
#include "tests/support/small_volume.h"
#include "tests/unit/files/archive_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>

#include <sys/stat.h>

using ::testing::ElementsAre;

namespace {

class ExtractionFailure : public ::testing::Test {
  protected:
    ExtractionFailure() {
        std::filesystem::create_directory(out_);
        write_file(archive_, bytes_);
    }

    int extract() const { return do_extract(archive_.c_str(), out_.c_str()); }

    TemporaryDirectory directory_;
    std::string archive_ = directory_.path("a.sja");
    std::string out_ = directory_.path("out");
    std::string bytes_ = sja_bytes({{"large", std::string(600000, 'l')}, {"small", "s", 0600}});
};

} // namespace

TEST_F(ExtractionFailure, OfAFullDiskLeavesNoHalfFile) {
    const SmallVolume volume("size=256k");
    EXPECT_EQ(do_extract(archive_.c_str(), volume.path().c_str()), 0);
    EXPECT_EQ(extractsja_error, 1);
    EXPECT_THAT(volume.names(), ElementsAre("small"));
    EXPECT_EQ(read_file(archive_), sja_bytes({{"large", std::string(600000, 'l')}}));
}

TEST_F(ExtractionFailure, OfADiskThatIsFullAtTheLastFlushLeavesNoHalfFile) {
    // The entry fits the stream's buffer whole, so that only closing the stream meets the full disk.
    const SmallVolume volume("size=64k");
    const std::string bytes = sja_bytes({{"medium", std::string(100000, 'm')}});
    write_file(archive_, bytes);
    EXPECT_EQ(do_extract(archive_.c_str(), volume.path().c_str()), 0);
    EXPECT_EQ(extractsja_error, 1);
    EXPECT_TRUE(volume.names().empty());
    EXPECT_EQ(read_file(archive_), bytes);
}

TEST_F(ExtractionFailure, OfAFullDiskLeavesAnEarlierFileAlone) {
    const SmallVolume volume("size=256k");
    write_file(volume.path("large"), "the earlier file");
    EXPECT_EQ(do_extract(archive_.c_str(), volume.path().c_str()), 0);
    EXPECT_THAT(volume.names(), ElementsAre("large", "small"));
    EXPECT_EQ(read_file(volume.path("large")), "the earlier file");
}

TEST_F(ExtractionFailure, ByAKillInTheMiddleLeavesNoHalfFile) {
    write_file(out_ + "/large", "the earlier file");
    EXPECT_EQ(with_file_size_limit(300000, [this] { return extract(); }), 128 + SIGXFSZ);
    EXPECT_THAT(directory_.names(), ElementsAre("a.sja", "out/", "out/large", "out/small"));
    EXPECT_EQ(read_file(out_ + "/large"), "the earlier file");
    EXPECT_EQ(read_file(archive_), sja_bytes({{"large", std::string(600000, 'l')}}));
}

TEST_F(ExtractionFailure, ByAnInterruptionLeavesTheEntriesThatAreLeftInTheArchive) {
    for (const std::string& bytes : {bytes_, sja_bytes({{"empty", ""}})}) {
        write_file(archive_, bytes);
        const int result = in_child([this] {
            const DeferredSignals deferred;
            static_cast<void>(std::raise(SIGTERM));
            if (extract() != 0 || extractsja_error != 1)
                _exit(1);
            return 0;
        });
        EXPECT_EQ(result, 128 + SIGTERM);
        EXPECT_THAT(directory_.names(), ElementsAre("a.sja", "out/"));
        EXPECT_EQ(read_file(archive_), bytes);
    }
}

TEST_F(ExtractionFailure, OfAWriteLeavesNoHalfFile) {
    const int result = with_file_size_limit(300000, [this] {
        static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
        return extract() == 0 && extractsja_error == 1 ? 7 : 8;
    });
    EXPECT_EQ(result, 7);
    EXPECT_THAT(directory_.names(), ElementsAre("a.sja", "out/", "out/small"));
}

TEST_F(ExtractionFailure, OfBringingAFileToTheDiskKeepsTheArchiveWhole) {
    EXPECT_EQ(with_failing_syscall(SYS_fsync, EIO, [this] { return extract(); }), 0);
    EXPECT_THAT(directory_.names(), ElementsAre("a.sja", "out/"));
    EXPECT_EQ(read_file(archive_), bytes_);
}

TEST_F(ExtractionFailure, OfNamingAFileKeepsTheArchiveWhole) {
    EXPECT_EQ(with_failing_syscall(SYS_linkat, EACCES, [this] { return extract(); }), 0);
    EXPECT_THAT(directory_.names(), ElementsAre("a.sja", "out/"));
    EXPECT_EQ(read_file(archive_), bytes_);
}

TEST_F(ExtractionFailure, OfReplacingAFileKeepsTheEarlierOne) {
    write_file(out_ + "/small", "the earlier file");
    EXPECT_EQ(with_failing_syscall(SYS_renameat, EACCES, [this] { return extract(); }), 0);
    EXPECT_THAT(directory_.names(), ElementsAre("a.sja", "out/", "out/small"));
    EXPECT_EQ(read_file(out_ + "/small"), "the earlier file");
    EXPECT_EQ(read_file(archive_), bytes_);
}

TEST_F(ExtractionFailure, OfSettingTheModeIsOnlyAWarning) {
    umask(022);
    EXPECT_EQ(with_failing_syscall(SYS_fchmod, EPERM, [this] { return extract(); }), 1);
    EXPECT_THAT(directory_.names(), ElementsAre("out/", "out/large", "out/small"));
    struct stat file = {};
    ASSERT_EQ(stat((out_ + "/small").c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 07777, 0644U);
}

TEST_F(ExtractionFailure, OfCuttingTheArchiveIsNotNoticed) {
    EXPECT_EQ(with_failing_syscall(SYS_ftruncate, EIO, [this] { return extract(); }), 1);
    EXPECT_THAT(directory_.names(), ElementsAre("out/", "out/large", "out/small"));
}

TEST_F(ExtractionFailure, OfDeletingTheArchiveIsNotNoticed) {
    EXPECT_EQ(with_failing_syscall(SYS_unlink, EACCES, [this] { return extract(); }), 1);
    EXPECT_THAT(directory_.names(), ElementsAre("a.sja", "out/", "out/large", "out/small"));
    EXPECT_EQ(read_file(archive_), "JANK");
}

TEST_F(ExtractionFailure, OfReadingTheArchiveIsAnError) {
    const int result = in_child([this] {
        FILE* archive = std::fopen(archive_.c_str(), "rb+");
        block_info* last = get_blocks(archive, 0);
        make_syscall_fail(SYS_read, EIO);
        extractsja_error = 0;
        return extract_block(archive, last, out_.c_str()) == nullptr && extractsja_error == 1 ? 7 : 8;
    });
    EXPECT_EQ(result, 7);
    EXPECT_THAT(directory_.names(), ElementsAre("a.sja", "out/"));
    EXPECT_EQ(read_file(archive_), bytes_);
}
