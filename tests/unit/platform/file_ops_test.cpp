#include "platform/file_ops.h"

#include "platform/file_descriptor.h"
#include "platform/interruption.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"
#include "tests/unit/platform/system_faults.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <set>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Names = std::vector<std::string>;

// A private file system on a folder, gone with its owner.
class Mounted {
  public:
    Mounted(std::string folder, const char* options) : folder_(std::move(folder)) {
        if (mount("test", folder_.c_str(), "tmpfs", 0, options) != 0)
            throw std::runtime_error("cannot mount on " + folder_);
    }
    Mounted(const Mounted&) = delete;
    Mounted& operator=(const Mounted&) = delete;
    ~Mounted() { umount(folder_.c_str()); }

    void make_read_only() const {
        if (mount("test", folder_.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr) != 0)
            throw std::runtime_error("cannot remount " + folder_);
    }

  private:
    std::string folder_;
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

// Whether `text` is ".NAME.<16 hex digits>.part".
bool is_temporary_name_of(const std::string& name, const std::string& text) {
    const std::size_t digits = name.size() + 2;
    return text.size() == digits + 16 + 5 && text.substr(0, digits) == "." + name + "." &&
           text.find_first_not_of("0123456789abcdef", digits) == digits + 16 &&
           text.substr(digits + 16) == ".part";
}

class FileCopy : public ::testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::create_directory(folder_.path("repo"));
        write_file(from_, long_text());
    }
    void TearDown() override {
        faults().reset();
        umask(old_mask_);
    }

    int copy() const { return fileCOPY(from_.c_str(), to_.c_str()); }

    // What lies in the destination's folder.
    Names repository() const {
        Names names;
        for (const auto& entry : std::filesystem::directory_iterator(folder_.path("repo")))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    // Copies in a process of its own that the prepared fault kills.
    void copy_until_killed() const {
        const pid_t child = fork();
        if (child == 0)
            _exit(copy());
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    }

    // Copies in a process of its own, which the prepared fault stops, and does `action` meanwhile. Returns
    // what the copy returned.
    template <typename Action>
    int copy_around(const Action& action) const {
        const pid_t child = fork();
        if (child == 0)
            _exit(copy());
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, WUNTRACED), child);
        EXPECT_TRUE(WIFSTOPPED(status)) << status;
        faults().reset();
        action();
        kill(child, SIGCONT);
        waitpid(child, &status, 0);
        return WEXITSTATUS(status);
    }

    TemporaryDirectory folder_;
    std::string from_ = folder_.path("source.sja");
    std::string to_ = folder_.path("repo/package.sja");
    mode_t old_mask_ = umask(022);
};

// The same where the destination's file system has no nameless files.
class NamedFileCopy : public FileCopy {
  protected:
    void SetUp() override {
        FileCopy::SetUp();
        faults().unknown_open_flags = O_TMPFILE & ~O_DIRECTORY;
    }
};

TEST_F(FileCopy, BringsEveryByteUnderTheNewName) {
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

TEST_F(FileCopy, LeavesOtherNamesOfAnEarlierFileWithIt) {
    write_file(to_, "earlier");
    std::filesystem::create_hard_link(to_, folder_.path("other"));
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(read_file(folder_.path("other")), "earlier");
}

TEST_F(FileCopy, ReplacesASymbolicLinkAndDoesNotFollowIt) {
    write_file(folder_.path("target"), "untouched");
    std::filesystem::create_symlink(folder_.path("target"), to_);
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(read_file(folder_.path("target")), "untouched");
    EXPECT_FALSE(std::filesystem::is_symlink(to_));
    EXPECT_TRUE(read_file(to_) == long_text());
}

TEST_F(FileCopy, ReplacesADanglingSymbolicLink) {
    std::filesystem::create_symlink(folder_.path("nowhere"), to_);
    EXPECT_EQ(copy(), 0);
    EXPECT_TRUE(read_file(to_) == long_text());
    EXPECT_FALSE(std::filesystem::exists(folder_.path("nowhere")));
}

TEST_F(FileCopy, OntoItselfLosesNothing) {
    EXPECT_EQ(fileCOPY(from_.c_str(), from_.c_str()), 0);
    EXPECT_TRUE(read_file(from_) == long_text());
    std::filesystem::create_hard_link(from_, to_);
    EXPECT_EQ(copy(), 0);
    EXPECT_TRUE(read_file(from_) == long_text());
    EXPECT_TRUE(read_file(to_) == long_text());
    EXPECT_EQ(folder_.names(), (Names{"repo/", "repo/package.sja", "source.sja"}));
}

TEST_F(FileCopy, FollowsASymbolicLinkToItsSource) {
    std::filesystem::create_symlink(from_, folder_.path("link"));
    EXPECT_EQ(fileCOPY(folder_.path("link").c_str(), to_.c_str()), 0);
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

TEST_F(FileCopy, TakesAPathWithoutAFolder) {
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(folder_.path("repo"));
    EXPECT_EQ(fileCOPY(from_.c_str(), "package.sja"), 0);
    std::filesystem::current_path(before);
    EXPECT_EQ(repository(), Names{"package.sja"});
}

TEST_F(FileCopy, TakesTheLongestNames) {
    const std::string name(255, 'n');
    const std::string path = folder_.path("repo/" + name);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(fileCOPY(from_.c_str(), path.c_str()), 0) << "copy " << i;
    EXPECT_EQ(repository(), Names{name});
    EXPECT_EQ(fileCOPY(from_.c_str(), (path + "n").c_str()), ENAMETOOLONG);
}

TEST_F(FileCopy, OfAMissingSourceLeavesNothing) {
    EXPECT_EQ(fileCOPY(folder_.path("missing").c_str(), to_.c_str()), ENOENT);
    EXPECT_EQ(repository(), Names{});
}

TEST_F(FileCopy, OfWhatIsNoRegularFileLeavesNothing) {
    EXPECT_EQ(fileCOPY(folder_.path().c_str(), to_.c_str()), EISDIR);
    ASSERT_EQ(mkfifo(folder_.path("pipe").c_str(), 0600), 0);
    EXPECT_EQ(fileCOPY(folder_.path("pipe").c_str(), to_.c_str()), EINVAL);
    EXPECT_EQ(fileCOPY("/dev/zero", to_.c_str()), EINVAL);
    EXPECT_EQ(repository(), Names{});
}

TEST_F(FileCopy, IntoAMissingFolderFails) {
    EXPECT_EQ(fileCOPY(from_.c_str(), folder_.path("none/package.sja").c_str()), ENOENT);
    EXPECT_EQ(fileCOPY(from_.c_str(), (from_ + "/package.sja").c_str()), ENOTDIR);
    EXPECT_EQ(folder_.names(), (Names{"repo/", "source.sja"}));
}

TEST_F(FileCopy, OntoAFolderFails) {
    std::filesystem::create_directory(to_);
    EXPECT_EQ(copy(), EISDIR);
    EXPECT_EQ(fileCOPY(from_.c_str(), folder_.path("repo/").c_str()), EISDIR);
    EXPECT_EQ(fileCOPY(from_.c_str(), folder_.path("repo/.").c_str()), EISDIR);
    EXPECT_EQ(fileCOPY(from_.c_str(), folder_.path("repo/..").c_str()), EISDIR);
    EXPECT_EQ(fileCOPY(from_.c_str(), ""), EISDIR);
    EXPECT_EQ(repository(), Names{"package.sja"});
}

TEST_F(FileCopy, OntoAFolderRightBelowTheRootFailsThereAndLeavesNothing) {
    const int error = fileCOPY(from_.c_str(), "/usr");
    EXPECT_TRUE(error == EISDIR || error == EACCES || error == EROFS) << error;
    for (const auto& entry : std::filesystem::directory_iterator("/"))
        EXPECT_NE(entry.path().filename().string().rfind(".usr.", 0), 0U) << entry.path();
}

TEST_F(FileCopy, OfANullPathFails) {
    EXPECT_EQ(fileCOPY(nullptr, to_.c_str()), EINVAL);
    EXPECT_EQ(fileCOPY(from_.c_str(), nullptr), EINVAL);
}

TEST_F(FileCopy, IntoAReadOnlyFolderLeavesTheEarlierFile) {
    const Mounted repository_volume(folder_.path("repo"), "size=1m");
    write_file(to_, "earlier");
    repository_volume.make_read_only();
    EXPECT_EQ(copy(), EROFS);
    EXPECT_EQ(read_file(to_), "earlier");
    EXPECT_EQ(repository(), Names{"package.sja"});
}

TEST_F(FileCopy, OntoAFullVolumeLeavesTheEarlierFile) {
    const Mounted repository_volume(folder_.path("repo"), "size=64k");
    write_file(to_, "earlier");
    EXPECT_EQ(copy(), ENOSPC);
    EXPECT_EQ(read_file(to_), "earlier");
    EXPECT_EQ(repository(), Names{"package.sja"});
}

TEST_F(NamedFileCopy, OntoAFullVolumeLeavesTheEarlierFile) {
    const Mounted repository_volume(folder_.path("repo"), "size=64k");
    write_file(to_, "earlier");
    EXPECT_EQ(copy(), ENOSPC);
    EXPECT_EQ(read_file(to_), "earlier");
    EXPECT_EQ(repository(), Names{"package.sja"});
}

TEST_F(NamedFileCopy, BringsEveryByteUnderTheNewName) {
    EXPECT_EQ(copy(), 0);
    EXPECT_TRUE(read_file(to_) == long_text());
    EXPECT_EQ(repository(), Names{"package.sja"});
    EXPECT_EQ(faults().count("linkat"), 0);
}

TEST_F(NamedFileCopy, IsMadeHoweverTheFileSystemSaysThatItHasNoNamelessFiles) {
    for (const int error : {EOPNOTSUPP, EISDIR, EINVAL}) {
        faults().unknown_open_flags_error = error;
        EXPECT_EQ(copy(), 0) << error;
        EXPECT_EQ(repository(), Names{"package.sja"}) << error;
    }
    faults().unknown_open_flags_error = EMFILE;
    EXPECT_EQ(copy(), EMFILE);
}

TEST_F(NamedFileCopy, ReplacesAnEarlierFileAndDoesNotFollowALink) {
    write_file(folder_.path("target"), "untouched");
    std::filesystem::create_symlink(folder_.path("target"), to_);
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(read_file(folder_.path("target")), "untouched");
    EXPECT_TRUE(read_file(to_) == long_text());
    EXPECT_EQ(repository(), Names{"package.sja"});
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

TEST_F(FileCopy, WhoseFolderCannotBeFlushedLeavesNothing) {
    faults().fail_next("fsync", EIO, 1);
    EXPECT_EQ(copy(), EIO);
    EXPECT_EQ(repository(), Names{});
}

// The earlier file is gone by then, and taking the new one away would leave neither.
TEST_F(FileCopy, WhoseFolderCannotBeFlushedStaysWhereItReplacedAnEarlierFile) {
    write_file(to_, "earlier");
    for (const bool nameless : {true, false}) {
        faults().reset();
        faults().unknown_open_flags = nameless ? 0 : O_TMPFILE & ~O_DIRECTORY;
        faults().fail_next("fsync", EIO, 1);
        EXPECT_EQ(copy(), EIO) << nameless;
        EXPECT_EQ(repository(), Names{"package.sja"}) << nameless;
        EXPECT_TRUE(read_file(to_) == long_text()) << nameless;
    }
}

TEST_F(NamedFileCopy, WhoseFolderCannotBeFlushedLeavesNothing) {
    faults().fail_next("fsync", EIO, 1);
    EXPECT_EQ(copy(), EIO);
    EXPECT_EQ(repository(), Names{});
}

TEST_F(FileCopy, SucceedsWhereFoldersAreNotFlushed) {
    faults().fail_next("fsync", EINVAL, 1);
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(repository(), Names{"package.sja"});
}

TEST_F(FileCopy, FlushesFileAndFolder) {
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(faults().count("fsync"), 2);
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

TEST_F(NamedFileCopy, GoesOnWhereTheFileSystemHasNoLocks) {
    faults().fail_always("flock", ENOLCK);
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(repository(), Names{"package.sja"});
}

TEST_F(FileCopy, CrossesVolumes) {
    const Mounted repository_volume(folder_.path("repo"), "size=4m");
    EXPECT_EQ(copy(), 0);
    EXPECT_TRUE(read_file(to_) == long_text());
}

TEST_F(FileCopy, NamesTheFileThroughProcWhereItMayNotByItself) {
    faults().fail_next("linkat", ENOENT);
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(repository(), Names{"package.sja"});
}

TEST_F(FileCopy, WhoseFileMayNotBeNamedAtAllLeavesNothing) {
    faults().fail_always("linkat", EPERM);
    EXPECT_EQ(copy(), EPERM);
    EXPECT_EQ(faults().count("linkat"), 2);
    EXPECT_EQ(repository(), Names{});
}

TEST_F(FileCopy, KilledWhileItWritesLeavesNothing) {
    for (const char* call : {"copy_file_range", "fsync", "linkat"}) {
        faults().reset();
        faults().kill_at(call);
        copy_until_killed();
        EXPECT_EQ(repository(), Names{}) << call;
    }
}

TEST_F(FileCopy, KilledBetweenTheTwoNamesLeavesAHiddenOneThatTheNextCopyRemoves) {
    write_file(to_, "earlier");
    faults().kill_at("renameat");
    copy_until_killed();
    const Names left = repository();
    ASSERT_EQ(left.size(), 2U);
    EXPECT_TRUE(is_temporary_name_of("package.sja", left[0])) << left[0];
    EXPECT_EQ(read_file(to_), "earlier");

    faults().reset();
    std::filesystem::remove(to_);
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(repository(), Names{"package.sja"});
    EXPECT_TRUE(read_file(to_) == long_text());
}

TEST_F(NamedFileCopy, KilledWhileItWritesLeavesAHiddenNameThatTheNextCopyRemoves) {
    for (const char* call : {"flock", "copy_file_range"}) {
        faults().kill_at(call);
        copy_until_killed();
        const Names left = repository();
        ASSERT_EQ(left.size(), 1U) << call;
        EXPECT_TRUE(is_temporary_name_of("package.sja", left[0])) << left[0];
        faults().reset();
        faults().unknown_open_flags = O_TMPFILE & ~O_DIRECTORY;
        EXPECT_EQ(copy(), 0) << call;
        EXPECT_EQ(repository(), Names{"package.sja"}) << call;
        EXPECT_TRUE(read_file(to_) == long_text()) << call;
        std::filesystem::remove(to_);
    }
}

// A long name is cut in its temporary form.
TEST_F(NamedFileCopy, KilledLeavesAHiddenNameOfTheLongestNames) {
    to_ = folder_.path("repo/" + std::string(255, 'n'));
    faults().kill_at("copy_file_range");
    copy_until_killed();
    ASSERT_EQ(repository().size(), 1U);
    EXPECT_TRUE(is_temporary_name_of(std::string(232, 'n'), repository()[0])) << repository()[0];
    faults().reset();
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(repository(), Names{std::string(255, 'n')});
}

TEST_F(FileCopy, NeverTakesTheSameTemporaryNameTwice) {
    write_file(to_, "earlier");
    std::set<std::string> names;
    for (int i = 0; i < 8; ++i) {
        faults().reset();
        faults().kill_at("renameat");
        copy_until_killed();
        names.insert(repository()[0]);
        std::filesystem::remove(folder_.path("repo/" + repository()[0]));
    }
    EXPECT_EQ(names.size(), 8U);
}

// What is not a killed copy's stays: only a file that its writer could have left goes.
TEST_F(FileCopy, RemovesTheLeftFileOfItsOwnNameAndNothingElse) {
    const auto in_repository = [this](const std::string& name) { return folder_.path("repo/" + name); };
    const std::string digits = ".0123456789abcde";
    const Names others = {".other.sja" + digits + "f.part",
                          ".package.sja" + digits + ".part",
                          ".package.sja" + digits + "ff.part",
                          ".package.sja" + digits + "F.part",
                          ".package.sja" + digits + "g.part",
                          ".package.sja" + digits + "f.part1",
                          ".package.sja.part",
                          "package.sja" + digits + "f.part",
                          ".package.sja0" + digits + "f.part",
                          "x.package.sja" + digits + "f.part"};
    for (const std::string& name : others)
        write_file(in_repository(name), "another's");
    std::filesystem::create_directory(in_repository(".package.sja" + digits + "0.part"));
    std::filesystem::create_symlink("nowhere", in_repository(".package.sja" + digits + "1.part"));
    ASSERT_EQ(mkfifo(in_repository(".package.sja" + digits + "2.part").c_str(), 0600), 0);
    write_file(in_repository(".package.sja" + digits + "3.part"), "has two names");
    std::filesystem::create_hard_link(in_repository(".package.sja" + digits + "3.part"),
                                      in_repository("second"));
    const FileDescriptor locked(
        open(in_repository(".package.sja" + digits + "5.part").c_str(), O_RDWR | O_CREAT, 0600));
    ASSERT_EQ(flock(locked.get(), LOCK_EX), 0);
    Names kept = repository();
    write_file(in_repository(".package.sja" + digits + "f.part"), "a killed copy's");

    EXPECT_EQ(copy(), 0);
    kept.push_back("package.sja");
    std::sort(kept.begin(), kept.end());
    EXPECT_EQ(repository(), kept);
}

TEST_F(FileCopy, RemovesNoLeftFileOfAnotherUser) {
    const std::string left = ".package.sja.0123456789abcdef.part";
    write_file(folder_.path("repo/" + left), "another user's");
    faults().effective_user = geteuid() + 1;
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(repository(), (Names{left, "package.sja"}));
}

TEST_F(FileCopy, KeepsAFileThatWasCopiedUnderANameLikeATemporaryOne) {
    const std::string name = ".package.sja.0123456789abcdef.part";
    ASSERT_EQ(fileCOPY(from_.c_str(), folder_.path("repo/" + name).c_str()), 0);
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(repository(), (Names{name, "package.sja"}));
}

TEST_F(FileCopy, KeepsTheTemporaryFileOfACopyThatIsUnderWay) {
    for (const int unknown_flags : {0, O_TMPFILE & ~O_DIRECTORY}) {
        write_file(to_, "earlier");
        faults().unknown_open_flags = unknown_flags;
        faults().stop_at("renameat");
        EXPECT_EQ(copy_around([this] {
                      EXPECT_EQ(copy(), 0);
                      EXPECT_EQ(repository().size(), 2U);
                  }),
                  0);
        EXPECT_EQ(repository(), Names{"package.sja"});
        EXPECT_TRUE(read_file(to_) == long_text());
    }
}

TEST_F(FileCopy, ThatFailsKeepsAnotherFileThatTookItsTemporaryName) {
    write_file(to_, "earlier");
    faults().stop_at("renameat", EIO);
    Names with_another;
    EXPECT_EQ(copy_around([&] {
                  with_another = repository();
                  std::filesystem::remove(folder_.path("repo/" + with_another[0]));
                  write_file(folder_.path("repo/" + with_another[0]), "another's");
              }),
              EIO);
    EXPECT_EQ(repository(), with_another);
}

TEST_F(FileCopy, WhoseFolderCannotBeFlushedKeepsAFileThatReplacedIt) {
    faults().stop_at("fsync", EIO, 1);
    EXPECT_EQ(copy_around([this] { EXPECT_EQ(copy(), 0); }), EIO);
    EXPECT_EQ(repository(), Names{"package.sja"});
}

// A process that looks for left files may hold the new one for a moment, and removes it then.
TEST_F(NamedFileCopy, TakesAnotherNameWhenItsNewFileIsTakenForALeftOne) {
    faults().fail_next("flock", EWOULDBLOCK);
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(repository(), Names{"package.sja"});
    EXPECT_TRUE(read_file(to_) == long_text());
}

TEST_F(NamedFileCopy, WhoseEveryFileIsTakenForALeftOneEndsAndLeavesNothing) {
    faults().fail_always("flock", EWOULDBLOCK);
    EXPECT_EQ(copy(), EEXIST);
    EXPECT_EQ(repository(), Names{});
}

TEST_F(FileCopy, DoesNotWaitForALockOnItsFolder) {
    const FileDescriptor folder(open(folder_.path("repo").c_str(), O_RDONLY | O_DIRECTORY));
    ASSERT_EQ(flock(folder.get(), LOCK_EX), 0);
    for (const int unknown_flags : {0, O_TMPFILE & ~O_DIRECTORY}) {
        faults().unknown_open_flags = unknown_flags;
        EXPECT_EQ(copy(), 0);
        EXPECT_EQ(copy(), 0) << "over an earlier file";
    }
}

TEST_F(NamedFileCopy, ByManyProcessesAtOnceEndsWithOneWholeFile) {
    constexpr int processes = 6;
    for (int i = 0; i < processes; ++i) {
        write_file(folder_.path("source" + std::to_string(i)),
                   std::string(400000, static_cast<char>('a' + i)));
        if (fork() == 0) {
            int failures = 0;
            for (int n = 0; n < 5; ++n)
                failures +=
                    fileCOPY(folder_.path("source" + std::to_string(i)).c_str(), to_.c_str()) == 0 ? 0 : 1;
            _exit(failures);
        }
    }
    for (int i = 0; i < processes; ++i) {
        int status = -1;
        wait(&status);
        EXPECT_EQ(status, 0) << "no copy takes the name from another";
    }
    const std::string text = read_file(to_);
    EXPECT_TRUE(text == std::string(400000, text[0]));
    EXPECT_EQ(repository(), Names{"package.sja"});
}

TEST_F(FileCopy, BringsAFileToTheDiskThatIsInPlaceAlready) {
    EXPECT_EQ(flush_file(from_.c_str()), 0);
    EXPECT_EQ(faults().count("fsync"), 2);
    for (const int passed : {0, 1}) {
        faults().reset();
        faults().fail_next("fsync", EIO, passed);
        EXPECT_EQ(flush_file(from_.c_str()), EIO) << passed;
    }
    faults().reset();
    faults().fail_next("fsync", EINVAL, 1);
    EXPECT_EQ(flush_file(from_.c_str()), 0) << "folders are not flushed here";
    EXPECT_EQ(flush_file(folder_.path("missing").c_str()), ENOENT);
    EXPECT_EQ(flush_file(folder_.path().c_str()), EISDIR);
}

TEST(FileDelete, RemovesTheFileAndNothingElse) {
    const TemporaryDirectory folder;
    write_file(folder.path("a"), "");
    write_file(folder.path("b"), "");
    EXPECT_EQ(fileDELETE(folder.path("a").c_str()), 0);
    EXPECT_EQ(folder.names(), Names{"b"});
}

TEST(FileDelete, RemovesALinkAndNotItsTarget) {
    const TemporaryDirectory folder;
    write_file(folder.path("target"), "");
    std::filesystem::create_symlink(folder.path("target"), folder.path("link"));
    EXPECT_EQ(fileDELETE(folder.path("link").c_str()), 0);
    EXPECT_EQ(folder.names(), Names{"target"});
}

TEST(FileDelete, TellsWhyItFailed) {
    const TemporaryDirectory folder;
    std::filesystem::create_directory(folder.path("folder"));
    EXPECT_EQ(fileDELETE(folder.path("missing").c_str()), ENOENT);
    EXPECT_EQ(fileDELETE(folder.path("folder").c_str()), EISDIR);
    EXPECT_EQ(fileDELETE(""), ENOENT);
    EXPECT_EQ(fileDELETE(nullptr), EINVAL);
    EXPECT_EQ(folder.names(), Names{"folder/"});
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
        const std::unique_ptr<char, decltype(&std::free)> name(qv_basename(row.path, row.suffix), &std::free);
        EXPECT_STREQ(name.get(), row.expected) << row.path;
    }
}

TEST(BaseName, IsNullWhereThereIsNone) {
    for (const char* path : {"", "/", "///"})
        EXPECT_EQ(qv_basename(path, nullptr), nullptr) << path;
    EXPECT_EQ(qv_basename(nullptr, nullptr), nullptr);
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

TEST(OpenFile, TellsOfAFailureToClose) {
    FileDescriptor file(9999);
    EXPECT_EQ(file.close(), EBADF);
    EXPECT_FALSE(file.is_open());
}

} // namespace
