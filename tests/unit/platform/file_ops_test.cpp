#include "platform/file_ops.h"

#include "platform/file_descriptor.h"
#include "platform/handle.h"
#include "platform/interruption.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"
#include "tests/unit/platform/system_faults.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Names = std::vector<std::string>;

// A private file system on a directory, gone with its owner.
class Mounted {
  public:
    Mounted(std::string directory, const char* options) : directory_(std::move(directory)) {
        if (mount("test", directory_.c_str(), "tmpfs", 0, options) != 0)
            throw std::runtime_error("cannot mount on " + directory_);
    }
    Mounted(const Mounted&) = delete;
    Mounted& operator=(const Mounted&) = delete;
    ~Mounted() { umount(directory_.c_str()); }

    void make_read_only() const {
        if (mount("test", directory_.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr) != 0)
            throw std::runtime_error("cannot remount " + directory_);
    }

  private:
    std::string directory_;
};

// Several buffers long, no two of them alike, and ending in the middle of one.
std::string long_text() {
    std::string text;
    while (text.size() < 700000)
        text += std::to_string(text.size()) + " ";
    return text;
}

mode_t mode_of(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
}

class FileCopy : public ::testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::create_directory(directory_.path("repo"));
        write_file(from_, long_text());
    }
    void TearDown() override {
        faults().reset();
        umask(old_mask_);
    }

    int copy() const { return fileCOPY(from_.c_str(), to_.c_str()); }

    // The names in the destination's directory.
    Names repository() const {
        Names names;
        for (const auto& entry : std::filesystem::directory_iterator(directory_.path("repo")))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    TemporaryDirectory directory_;
    std::string from_ = directory_.path("source.sja");
    std::string to_ = directory_.path("repo/package.sja");
    mode_t old_mask_ = umask(022);
};

TEST_F(FileCopy, CopiesEveryByte) {
    EXPECT_EQ(copy(), 0);
    EXPECT_TRUE(read_file(to_) == long_text());
    EXPECT_TRUE(read_file(from_) == long_text());
    EXPECT_EQ(repository(), Names{"package.sja"});
}

TEST_F(FileCopy, OfAnEmptyFileIsEmpty) {
    write_file(from_, "");
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(read_file(to_), "");
}

TEST_F(FileCopy, ReplacesAnEarlierFile) {
    write_file(to_, "earlier");
    EXPECT_EQ(copy(), 0);
    EXPECT_TRUE(read_file(to_) == long_text());
    EXPECT_EQ(repository(), Names{"package.sja"});
}

TEST_F(FileCopy, OntoItselfLosesNothing) {
    EXPECT_EQ(fileCOPY(from_.c_str(), from_.c_str()), 0);
    EXPECT_TRUE(read_file(from_) == long_text());
    std::filesystem::create_hard_link(from_, to_);
    EXPECT_EQ(copy(), 0);
    EXPECT_TRUE(read_file(from_) == long_text());
    EXPECT_TRUE(read_file(to_) == long_text());
    EXPECT_EQ(directory_.names(), (Names{"repo/", "repo/package.sja", "source.sja"}));
}

TEST_F(FileCopy, FollowsASymbolicLinkToItsSource) {
    std::filesystem::create_symlink(from_, directory_.path("link"));
    EXPECT_EQ(fileCOPY(directory_.path("link").c_str(), to_.c_str()), 0);
    EXPECT_TRUE(read_file(to_) == long_text());
}

TEST_F(FileCopy, HasTheSourcesPermissionsLessSetIdBitsAndMask) {
    struct Row {
        mode_t source;
        mode_t mask;
        mode_t expected;
    };
    for (const Row& row :
         {Row{0644, 022, 0644}, Row{0666, 022, 0644}, Row{0755, 022, 0755}, Row{0600, 022, 0600},
          Row{0444, 022, 0444}, Row{06755, 022, 0755}, Row{04711, 0, 0711}, Row{0777, 077, 0700}}) {
        for (const int unknown_flags : {0, O_TMPFILE & ~O_DIRECTORY}) {
            faults().unknown_open_flags = unknown_flags;
            ASSERT_EQ(chmod(from_.c_str(), row.source), 0);
            umask(row.mask);
            EXPECT_EQ(copy(), 0);
            EXPECT_EQ(mode_of(to_), row.expected) << std::oct << row.source << " less " << row.mask;
        }
    }
}

// Writing clears the bits anyway, so a file without bytes is what would bring them along.
TEST_F(FileCopy, OfAnEmptyFileHasNoSetIdBitsEither) {
    write_file(from_, "");
    ASSERT_EQ(chmod(from_.c_str(), 06755), 0);
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(mode_of(to_), 0755U);
}

TEST_F(FileCopy, OfAMissingSourceLeavesNothing) {
    EXPECT_EQ(fileCOPY(directory_.path("missing").c_str(), to_.c_str()), ENOENT);
    EXPECT_EQ(repository(), Names{});
}

TEST_F(FileCopy, OfWhatIsNotARegularFileLeavesNothing) {
    EXPECT_EQ(fileCOPY(directory_.path().c_str(), to_.c_str()), EISDIR);
    ASSERT_EQ(mkfifo(directory_.path("pipe").c_str(), 0600), 0);
    EXPECT_EQ(fileCOPY(directory_.path("pipe").c_str(), to_.c_str()), EINVAL);
    EXPECT_EQ(fileCOPY("/dev/zero", to_.c_str()), EINVAL);
    EXPECT_EQ(repository(), Names{});
}

TEST_F(FileCopy, IntoAMissingDirectoryFails) {
    EXPECT_EQ(fileCOPY(from_.c_str(), directory_.path("none/package.sja").c_str()), ENOENT);
    EXPECT_EQ(fileCOPY(from_.c_str(), (from_ + "/package.sja").c_str()), ENOTDIR);
    EXPECT_EQ(directory_.names(), (Names{"repo/", "source.sja"}));
}

TEST_F(FileCopy, OntoADirectoryFails) {
    std::filesystem::create_directory(to_);
    EXPECT_EQ(copy(), EISDIR);
    EXPECT_EQ(fileCOPY(from_.c_str(), directory_.path("repo/").c_str()), EISDIR);
    EXPECT_EQ(fileCOPY(from_.c_str(), directory_.path("repo/.").c_str()), EISDIR);
    EXPECT_EQ(fileCOPY(from_.c_str(), directory_.path("repo/..").c_str()), EISDIR);
    EXPECT_EQ(fileCOPY(from_.c_str(), ""), EISDIR);
    EXPECT_EQ(repository(), Names{"package.sja"});
}

TEST_F(FileCopy, OntoADirectoryRightBelowTheRootFailsThereAndLeavesNothing) {
    const int error = fileCOPY(from_.c_str(), "/usr");
    EXPECT_TRUE(error == EISDIR || error == EACCES || error == EROFS) << error;
    for (const auto& entry : std::filesystem::directory_iterator("/"))
        EXPECT_NE(entry.path().filename().string().rfind(".usr.", 0), 0U) << entry.path();
}

TEST_F(FileCopy, OfANullPathFails) {
    EXPECT_EQ(fileCOPY(nullptr, to_.c_str()), EINVAL);
    EXPECT_EQ(fileCOPY(from_.c_str(), nullptr), EINVAL);
}

TEST_F(FileCopy, IntoAReadOnlyDirectoryLeavesTheEarlierFile) {
    const Mounted repository_volume(directory_.path("repo"), "size=1m");
    write_file(to_, "earlier");
    repository_volume.make_read_only();
    EXPECT_EQ(copy(), EROFS);
    EXPECT_EQ(read_file(to_), "earlier");
    EXPECT_EQ(repository(), Names{"package.sja"});
}

TEST_F(FileCopy, OntoAFullVolumeLeavesTheEarlierFile) {
    const Mounted repository_volume(directory_.path("repo"), "size=64k");
    write_file(to_, "earlier");
    for (const int unknown_flags : {0, O_TMPFILE & ~O_DIRECTORY}) {
        faults().unknown_open_flags = unknown_flags;
        EXPECT_EQ(copy(), ENOSPC);
        EXPECT_EQ(read_file(to_), "earlier");
        EXPECT_EQ(repository(), Names{"package.sja"});
    }
}

// Each system call of a copy fails in turn, with and without an earlier file, with and without nameless
// files.
TEST_F(FileCopy, ThatFailsInAnyStepLeavesNothingAndKeepsTheEarlierFile) {
    struct Step {
        const char* call;
        int passed;
        bool nameless;
        bool earlier;
    };
    for (const Step& step :
         {Step{"openat", 0, true, false}, Step{"openat", 0, true, true}, Step{"openat", 1, false, true},
          Step{"read", 0, true, true}, Step{"read", 0, false, true}, Step{"write", 1, true, false},
          Step{"write", 1, true, true}, Step{"write", 1, false, false}, Step{"write", 1, false, true},
          Step{"fsync", 0, true, false}, Step{"fsync", 0, true, true}, Step{"fsync", 0, false, true},
          Step{"linkat", 0, true, false}, Step{"linkat", 1, true, true}, Step{"renameat", 0, true, true},
          Step{"renameat", 0, false, false}, Step{"renameat", 0, false, true}}) {
        faults().reset();
        std::filesystem::remove(to_);
        if (step.earlier)
            write_file(to_, "earlier");
        faults().unknown_open_flags = step.nameless ? 0 : O_TMPFILE & ~O_DIRECTORY;
        faults().fail_always("copy_file_range", EXDEV);
        faults().fail_next(step.call, EIO, step.passed);
        EXPECT_EQ(copy(), EIO) << step.call << " " << step.nameless << step.earlier;
        EXPECT_EQ(repository(), step.earlier ? Names{"package.sja"} : Names{}) << step.call;
        if (step.earlier) {
            EXPECT_EQ(read_file(to_), "earlier") << step.call;
        }
    }
}

// Without a file system that shares blocks under the test, the call that would do it is made to succeed or
// fail.

TEST_F(FileCopy, SharesBlocksWhereTheFileSystemCan) {
    faults().shares_blocks = true;
    EXPECT_EQ(copy(), 0);
    EXPECT_TRUE(read_file(to_) == long_text());
    EXPECT_EQ(faults().count("copy_file_range") + faults().count("read") + faults().count("write"), 0)
        << "what is shared is not copied again";
}

TEST_F(FileCopy, IsLeftToTheKernelWhereTheFileSystemSharesNoBlocks) {
    faults().fail_next("ioctl", EOPNOTSUPP);
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(faults().count("ioctl"), 1);
    EXPECT_GE(faults().count("copy_file_range"), 1);
    EXPECT_EQ(faults().count("write"), 0) << "what the kernel has copied is not copied again";
}

TEST_F(FileCopy, GoesThroughABufferWhereTheKernelDoesNotCopy) {
    for (const int error : {EXDEV, EINVAL, ENOSYS, EOPNOTSUPP, EPERM, EBADF, EIO}) {
        faults().reset();
        faults().fail_always("copy_file_range", error);
        EXPECT_EQ(copy(), 0) << error;
        EXPECT_TRUE(read_file(to_) == long_text()) << error;
    }
}

TEST_F(FileCopy, IsGivenUpAtTheNextPieceWhenTheProgramIsInterrupted) {
    for (const std::string call : {"copy_file_range", "read"}) {
        const int result = in_child([this, &call] {
            const DeferredSignals deferred;
            faults().copy_limit = 100;
            faults().signal_at(call, SIGTERM);
            if (copy() != EINTR || faults().count(call) != 1)
                _exit(1);
            return 0;
        });
        EXPECT_EQ(result, 128 + SIGTERM) << call;
        EXPECT_EQ(repository(), Names{});
    }
}

TEST_F(FileCopy, GoesOnThroughABufferWhereTheKernelEndsEarly) {
    for (const std::size_t moved : {0UL, 1UL, 300000UL}) {
        faults().reset();
        faults().copy_limit = moved;
        EXPECT_EQ(copy(), 0) << moved;
        EXPECT_TRUE(read_file(to_) == long_text()) << moved;
    }
}

TEST_F(FileCopy, GoesOnAfterASignal) {
    faults().fail_next("copy_file_range", EINTR);
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(faults().count("write"), 0);
    faults().reset();
    faults().fail_always("copy_file_range", EXDEV);
    faults().fail_next("read", EINTR, 1);
    faults().fail_next("write", EINTR, 1);
    EXPECT_EQ(copy(), 0);
    EXPECT_TRUE(read_file(to_) == long_text());
}

TEST_F(FileCopy, CrossesVolumes) {
    const Mounted repository_volume(directory_.path("repo"), "size=4m");
    EXPECT_EQ(copy(), 0);
    EXPECT_TRUE(read_file(to_) == long_text());
}

TEST_F(FileCopy, FlushesAFileThatIsInPlaceAlready) {
    EXPECT_EQ(flush_file(from_.c_str()), 0);
    EXPECT_EQ(faults().count("fsync"), 2);
    for (const int passed : {0, 1}) {
        faults().reset();
        faults().fail_next("fsync", EIO, passed);
        EXPECT_EQ(flush_file(from_.c_str()), EIO) << passed;
    }
    faults().reset();
    faults().fail_next("fsync", EINVAL, 1);
    EXPECT_EQ(flush_file(from_.c_str()), 0) << "directories are not flushed here";
    EXPECT_EQ(flush_file(directory_.path("missing").c_str()), ENOENT);
    EXPECT_EQ(flush_file(directory_.path().c_str()), EISDIR);
}

TEST(FileDelete, RemovesTheFileAndNothingElse) {
    const TemporaryDirectory directory;
    write_file(directory.path("a"), "");
    write_file(directory.path("b"), "");
    EXPECT_EQ(fileDELETE(directory.path("a").c_str()), 0);
    EXPECT_EQ(directory.names(), Names{"b"});
}

TEST(FileDelete, RemovesALinkAndNotItsTarget) {
    const TemporaryDirectory directory;
    write_file(directory.path("target"), "");
    std::filesystem::create_symlink(directory.path("target"), directory.path("link"));
    EXPECT_EQ(fileDELETE(directory.path("link").c_str()), 0);
    EXPECT_EQ(directory.names(), Names{"target"});
}

TEST(FileDelete, ReturnsWhyItFailed) {
    const TemporaryDirectory directory;
    std::filesystem::create_directory(directory.path("directory"));
    EXPECT_EQ(fileDELETE(directory.path("missing").c_str()), ENOENT);
    EXPECT_EQ(fileDELETE(directory.path("directory").c_str()), EISDIR);
    EXPECT_EQ(fileDELETE(""), ENOENT);
    EXPECT_EQ(fileDELETE(nullptr), EINVAL);
    EXPECT_EQ(directory.names(), Names{"directory/"});
}

TEST(BaseName, IsTheLastComponentWithoutTheSuffix) {
    struct Row {
        const char* path;
        const char* suffix;
        const char* expected;
    };
    for (const Row& row :
         {Row{"/a/b.sja", nullptr, "b.sja"}, Row{"b.sja", nullptr, "b.sja"}, Row{"a/b", nullptr, "b"},
          Row{"/b", nullptr, "b"}, Row{"a//b//", nullptr, "b"}, Row{"a/", nullptr, "a"},
          Row{".", nullptr, "."}, Row{"..", nullptr, ".."}, Row{"a b/ c ", nullptr, " c "},
          Row{"/a/b.sja", ".sja", "b"}, Row{"/a/b.sja/", ".sja", "b"}, Row{"b.sja", "", "b.sja"},
          Row{"b.sja", ".rpm", "b.sja"}, Row{".sja", ".sja", ".sja"}, Row{"x.sja", "b/x.sja", "x.sja"},
          Row{"a.sja.sja", ".sja", "a.sja"}}) {
        const std::unique_ptr<char, Release<std::free>> name(qv_basename(row.path, row.suffix));
        EXPECT_STREQ(name.get(), row.expected) << row.path;
    }
}

TEST(BaseName, IsNullWhereThereIsNone) {
    for (const char* path : {"", "/", "///"})
        EXPECT_EQ(qv_basename(path, nullptr), nullptr) << path;
    EXPECT_EQ(qv_basename(nullptr, nullptr), nullptr);
    EXPECT_EQ(base_name("///"), "");
}

TEST(OpenFile, IsClosedOnceByItsLastOwner) {
    int pipe_ends[2];
    ASSERT_EQ(pipe(pipe_ends), 0);
    const FileDescriptor reading(pipe_ends[0]);
    FileDescriptor first(pipe_ends[1]);
    FileDescriptor second(std::move(first));
    EXPECT_FALSE(
        first.is_open()); // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move): what is tested
    FileDescriptor third;
    third = std::move(second);
    EXPECT_EQ(third.get(), pipe_ends[1]);
    FileDescriptor& itself = third;
    third = std::move(itself);
    EXPECT_EQ(third.get(), pipe_ends[1]) << "given to itself, it stays";
    EXPECT_EQ(third.close(), 0);
    EXPECT_EQ(third.close(), 0) << "closing twice does nothing";
    char byte = 0;
    EXPECT_EQ(read(reading.get(), &byte, 1), 0) << "no writer is left";
}

TEST(OpenFile, ReportsAFailureToClose) {
    FileDescriptor file(9999);
    EXPECT_EQ(file.close(), EBADF);
    EXPECT_FALSE(file.is_open());
}

} // namespace
