#include "platform/pending_file.h"

#include "tests/support/temporary_directory.h"
#include "tests/unit/platform/system_faults.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <set>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Names = std::vector<std::string>;

const std::string TEXT = "the whole text";

// Whether `text` is ".NAME.<16 hex digits>.part".
bool is_temporary_name_of(const std::string& name, const std::string& text) {
    const std::size_t digits = name.size() + 2;
    return text.size() == digits + 16 + 5 && text.substr(0, digits) == "." + name + "." &&
           text.find_first_not_of("0123456789abcdef", digits) == digits + 16 &&
           text.substr(digits + 16) == ".part";
}

class APendingFile : public ::testing::Test {
  protected:
    void SetUp() override { std::filesystem::create_directory(directory_.path("repo")); }
    void TearDown() override { faults().reset(); }

    // Writes `text` to a pending file for `path` and commits it. Returns 0 or an errno.
    static int put(const std::string& path, const std::string& text = TEXT) {
        PendingFile file(path);
        int error = file.open(0666);
        if (error == 0)
            error = write_all(file.descriptor(), text);
        return error == 0 ? file.commit() : error;
    }
    int put() const { return put(to_); }

    // The names in the file's directory.
    Names repository() const {
        Names names;
        for (const auto& entry : std::filesystem::directory_iterator(directory_.path("repo")))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    // Writes the file in a process of its own that the prepared fault kills.
    void put_until_killed() const {
        const pid_t child = fork();
        if (child == 0)
            _exit(put());
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    }

    // Writes the file in a process of its own, which the prepared fault stops, and does `action` meanwhile. Returns
    // what put() returned.
    template <typename Action>
    int put_around(const Action& action) const {
        const pid_t child = fork();
        if (child == 0)
            _exit(put());
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, WUNTRACED), child);
        EXPECT_TRUE(WIFSTOPPED(status)) << status;
        faults().reset();
        action();
        kill(child, SIGCONT);
        waitpid(child, &status, 0);
        return WEXITSTATUS(status);
    }

    TemporaryDirectory directory_;
    std::string to_ = directory_.path("repo/package.sja");
};

// The same where the file system has no nameless files.
class ANamedPendingFile : public APendingFile {
  protected:
    void SetUp() override {
        APendingFile::SetUp();
        faults().unknown_open_flags = O_TMPFILE & ~O_DIRECTORY;
    }
};

TEST_F(APendingFile, LeavesOtherNamesOfAnEarlierFileWithIt) {
    write_file(to_, "earlier");
    std::filesystem::create_hard_link(to_, directory_.path("other"));
    EXPECT_EQ(put(), 0);
    EXPECT_EQ(read_file(directory_.path("other")), "earlier");
}

TEST_F(APendingFile, ReplacesASymbolicLinkAndDoesNotFollowIt) {
    write_file(directory_.path("target"), "untouched");
    std::filesystem::create_symlink(directory_.path("target"), to_);
    EXPECT_EQ(put(), 0);
    EXPECT_EQ(read_file(directory_.path("target")), "untouched");
    EXPECT_FALSE(std::filesystem::is_symlink(to_));
    EXPECT_EQ(read_file(to_), TEXT);
}

TEST_F(APendingFile, ReplacesADanglingSymbolicLink) {
    std::filesystem::create_symlink(directory_.path("nowhere"), to_);
    EXPECT_EQ(put(), 0);
    EXPECT_EQ(read_file(to_), TEXT);
    EXPECT_FALSE(std::filesystem::exists(directory_.path("nowhere")));
}

TEST_F(APendingFile, AcceptsAPathWithoutADirectory) {
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(directory_.path("repo"));
    EXPECT_EQ(put("package.sja"), 0);
    std::filesystem::current_path(before);
    EXPECT_EQ(repository(), Names{"package.sja"});
}

TEST_F(APendingFile, AcceptsTheLongestNames) {
    const std::string name(255, 'n');
    const std::string path = directory_.path("repo/" + name);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(put(path), 0) << i;
    EXPECT_EQ(repository(), Names{name});
    EXPECT_EQ(put(path + "n"), ENAMETOOLONG);
}

TEST_F(ANamedPendingFile, TakesItsNameWhenItIsComplete) {
    EXPECT_EQ(put(), 0);
    EXPECT_EQ(read_file(to_), TEXT);
    EXPECT_EQ(repository(), Names{"package.sja"});
    EXPECT_EQ(faults().count("linkat"), 0);
}

TEST_F(ANamedPendingFile, IsMadeHoweverTheFileSystemSaysThatItHasNoNamelessFiles) {
    for (const int error : {EOPNOTSUPP, EISDIR, EINVAL}) {
        faults().unknown_open_flags_error = error;
        EXPECT_EQ(put(), 0) << error;
        EXPECT_EQ(repository(), Names{"package.sja"}) << error;
    }
    faults().unknown_open_flags_error = EMFILE;
    EXPECT_EQ(put(), EMFILE);
}

TEST_F(ANamedPendingFile, ReplacesAnEarlierFileAndDoesNotFollowALink) {
    write_file(directory_.path("target"), "untouched");
    std::filesystem::create_symlink(directory_.path("target"), to_);
    EXPECT_EQ(put(), 0);
    EXPECT_EQ(read_file(directory_.path("target")), "untouched");
    EXPECT_EQ(read_file(to_), TEXT);
    EXPECT_EQ(repository(), Names{"package.sja"});
}

TEST_F(APendingFile, WhoseDirectoryCannotBeFlushedLeavesNothing) {
    faults().fail_next("fsync", EIO, 1);
    EXPECT_EQ(put(), EIO);
    EXPECT_EQ(repository(), Names{});
}

// The earlier file is gone by then, and taking the new one away would leave neither.
TEST_F(APendingFile, WhoseDirectoryCannotBeFlushedStaysWhereItReplacedAnEarlierFile) {
    write_file(to_, "earlier");
    for (const bool nameless : {true, false}) {
        faults().reset();
        faults().unknown_open_flags = nameless ? 0 : O_TMPFILE & ~O_DIRECTORY;
        faults().fail_next("fsync", EIO, 1);
        EXPECT_EQ(put(), EIO) << nameless;
        EXPECT_EQ(repository(), Names{"package.sja"}) << nameless;
        EXPECT_EQ(read_file(to_), TEXT) << nameless;
    }
}

TEST_F(ANamedPendingFile, WhoseDirectoryCannotBeFlushedLeavesNothing) {
    faults().fail_next("fsync", EIO, 1);
    EXPECT_EQ(put(), EIO);
    EXPECT_EQ(repository(), Names{});
}

TEST_F(APendingFile, SucceedsWhereDirectoriesAreNotFlushed) {
    faults().fail_next("fsync", EINVAL, 1);
    EXPECT_EQ(put(), 0);
    EXPECT_EQ(repository(), Names{"package.sja"});
}

TEST_F(APendingFile, FlushesFileAndDirectory) {
    EXPECT_EQ(put(), 0);
    EXPECT_EQ(faults().count("fsync"), 2);
}

TEST_F(ANamedPendingFile, IsMadeWhereTheFileSystemHasNoLocks) {
    faults().fail_always("flock", ENOLCK);
    EXPECT_EQ(put(), 0);
    EXPECT_EQ(repository(), Names{"package.sja"});
}

TEST_F(APendingFile, NamesTheFileThroughProcWhereItMayNotByItself) {
    faults().fail_next("linkat", ENOENT);
    EXPECT_EQ(put(), 0);
    EXPECT_EQ(repository(), Names{"package.sja"});
}

TEST_F(APendingFile, WhoseFileMayNotBeNamedAtAllLeavesNothing) {
    faults().fail_always("linkat", EPERM);
    EXPECT_EQ(put(), EPERM);
    EXPECT_EQ(faults().count("linkat"), 2);
    EXPECT_EQ(repository(), Names{});
}

TEST_F(APendingFile, KilledWhileItWritesLeavesNothing) {
    for (const char* call : {"write", "fsync", "linkat"}) {
        faults().reset();
        faults().kill_at(call);
        put_until_killed();
        EXPECT_EQ(repository(), Names{}) << call;
    }
}

TEST_F(APendingFile, KilledBetweenTheTwoNamesLeavesAHiddenOneThatTheNextOneRemoves) {
    write_file(to_, "earlier");
    faults().kill_at("renameat");
    put_until_killed();
    const Names left = repository();
    ASSERT_EQ(left.size(), 2U);
    EXPECT_TRUE(is_temporary_name_of("package.sja", left[0])) << left[0];
    EXPECT_EQ(read_file(to_), "earlier");

    faults().reset();
    std::filesystem::remove(to_);
    EXPECT_EQ(put(), 0);
    EXPECT_EQ(repository(), Names{"package.sja"});
    EXPECT_EQ(read_file(to_), TEXT);
}

TEST_F(ANamedPendingFile, KilledWhileItWritesLeavesAHiddenNameThatTheNextOneRemoves) {
    for (const char* call : {"flock", "write"}) {
        faults().kill_at(call);
        put_until_killed();
        const Names left = repository();
        ASSERT_EQ(left.size(), 1U) << call;
        EXPECT_TRUE(is_temporary_name_of("package.sja", left[0])) << left[0];
        faults().reset();
        faults().unknown_open_flags = O_TMPFILE & ~O_DIRECTORY;
        EXPECT_EQ(put(), 0) << call;
        EXPECT_EQ(repository(), Names{"package.sja"}) << call;
        EXPECT_EQ(read_file(to_), TEXT) << call;
        std::filesystem::remove(to_);
    }
}

// A long name is cut in its temporary form.
TEST_F(ANamedPendingFile, KilledLeavesAHiddenNameOfTheLongestNames) {
    to_ = directory_.path("repo/" + std::string(255, 'n'));
    faults().kill_at("write");
    put_until_killed();
    ASSERT_EQ(repository().size(), 1U);
    EXPECT_TRUE(is_temporary_name_of(std::string(232, 'n'), repository()[0])) << repository()[0];
    faults().reset();
    EXPECT_EQ(put(), 0);
    EXPECT_EQ(repository(), Names{std::string(255, 'n')});
}

TEST_F(APendingFile, NeverTakesTheSameTemporaryNameTwice) {
    write_file(to_, "earlier");
    std::set<std::string> names;
    for (int i = 0; i < 8; ++i) {
        faults().reset();
        faults().kill_at("renameat");
        put_until_killed();
        names.insert(repository()[0]);
        std::filesystem::remove(directory_.path("repo/" + repository()[0]));
    }
    EXPECT_EQ(names.size(), 8U);
}

// What is not a killed writer's stays: only a file that its writer could have left goes.
TEST_F(APendingFile, RemovesTheLeftFileOfItsOwnNameAndNothingElse) {
    const auto in_repository = [this](const std::string& name) { return directory_.path("repo/" + name); };
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
    write_file(in_repository(".package.sja" + digits + "f.part"), "a killed writer's");

    EXPECT_EQ(put(), 0);
    kept.push_back("package.sja");
    std::sort(kept.begin(), kept.end());
    EXPECT_EQ(repository(), kept);
}

TEST_F(APendingFile, RemovesNoLeftFileOfAnotherUser) {
    const std::string left = ".package.sja.0123456789abcdef.part";
    write_file(directory_.path("repo/" + left), "another user's");
    faults().effective_user = geteuid() + 1;
    EXPECT_EQ(put(), 0);
    EXPECT_EQ(repository(), (Names{left, "package.sja"}));
}

TEST_F(APendingFile, KeepsACommittedFileWithANameLikeATemporaryOne) {
    const std::string name = ".package.sja.0123456789abcdef.part";
    ASSERT_EQ(put(directory_.path("repo/" + name)), 0);
    EXPECT_EQ(put(), 0);
    EXPECT_EQ(put(), 0);
    EXPECT_EQ(repository(), (Names{name, "package.sja"}));
}

TEST_F(APendingFile, KeepsTheTemporaryFileOfAWriterThatIsUnderWay) {
    for (const int unknown_flags : {0, O_TMPFILE & ~O_DIRECTORY}) {
        write_file(to_, "earlier");
        faults().unknown_open_flags = unknown_flags;
        faults().stop_at("renameat");
        EXPECT_EQ(put_around([this] {
                      EXPECT_EQ(put(), 0);
                      EXPECT_EQ(repository().size(), 2U);
                  }),
                  0);
        EXPECT_EQ(repository(), Names{"package.sja"});
        EXPECT_EQ(read_file(to_), TEXT);
    }
}

TEST_F(APendingFile, ThatFailsKeepsAnotherFileThatTookItsTemporaryName) {
    write_file(to_, "earlier");
    faults().stop_at("renameat", EIO);
    Names with_another;
    EXPECT_EQ(put_around([&] {
                  with_another = repository();
                  std::filesystem::remove(directory_.path("repo/" + with_another[0]));
                  write_file(directory_.path("repo/" + with_another[0]), "another's");
              }),
              EIO);
    EXPECT_EQ(repository(), with_another);
}

TEST_F(APendingFile, WhoseDirectoryCannotBeFlushedKeepsAFileThatReplacedIt) {
    faults().stop_at("fsync", EIO, 1);
    EXPECT_EQ(put_around([this] { EXPECT_EQ(put(), 0); }), EIO);
    EXPECT_EQ(repository(), Names{"package.sja"});
}

// A process that looks for left files may hold the new one for a moment, and removes it then.
TEST_F(ANamedPendingFile, TakesAnotherNameWhenItsNewFileIsTakenForALeftOne) {
    faults().fail_next("flock", EWOULDBLOCK);
    EXPECT_EQ(put(), 0);
    EXPECT_EQ(repository(), Names{"package.sja"});
    EXPECT_EQ(read_file(to_), TEXT);
}

TEST_F(ANamedPendingFile, WhoseEveryFileIsTakenForALeftOneEndsAndLeavesNothing) {
    faults().fail_always("flock", EWOULDBLOCK);
    EXPECT_EQ(put(), EEXIST);
    EXPECT_EQ(repository(), Names{});
}

TEST_F(APendingFile, DoesNotWaitForALockOnItsDirectory) {
    const FileDescriptor directory(open(directory_.path("repo").c_str(), O_RDONLY | O_DIRECTORY));
    ASSERT_EQ(flock(directory.get(), LOCK_EX), 0);
    for (const int unknown_flags : {0, O_TMPFILE & ~O_DIRECTORY}) {
        faults().unknown_open_flags = unknown_flags;
        EXPECT_EQ(put(), 0);
        EXPECT_EQ(put(), 0) << "over an earlier file";
    }
}

TEST_F(ANamedPendingFile, WrittenByManyProcessesAtOnceIsOneWholeFile) {
    constexpr int processes = 6;
    for (int i = 0; i < processes; ++i) {
        if (fork() == 0) {
            int failures = 0;
            for (int n = 0; n < 5; ++n)
                failures += put(to_, std::string(400000, static_cast<char>('a' + i))) == 0 ? 0 : 1;
            _exit(failures);
        }
    }
    for (int i = 0; i < processes; ++i) {
        int status = -1;
        wait(&status);
        EXPECT_EQ(status, 0) << "no writer takes the name from another";
    }
    const std::string text = read_file(to_);
    EXPECT_TRUE(text == std::string(400000, text[0]));
    EXPECT_EQ(repository(), Names{"package.sja"});
}

} // namespace
