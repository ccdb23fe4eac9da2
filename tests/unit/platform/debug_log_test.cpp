#include "platform/debug_log.h"

#include "platform/file_descriptor.h"
#include "tests/support/log_capture.h"
#include "tests/support/small_volume.h"
#include "tests/support/temporary_directory.h"
#include "tests/unit/platform/system_faults.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string today() {
    const std::time_t now = std::time(nullptr);
    char text[16];
    return {text, std::strftime(text, sizeof text, "%Y-%m-%d", std::gmtime(&now))};
}

// How many write calls this process has made so far.
long writes_so_far() {
    std::ifstream counters("/proc/self/io");
    for (std::string name, value; counters >> name >> value;) {
        if (name == "syscw:")
            return std::stol(value);
    }
    return -1;
}

class DebugLog : public ::testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::create_directory(directory_.path("prog"));
        // Far enough from UTC for another day at most hours, and never UTC.
        setenv("TZ", "XYZ-13:30", 1);
        tzset();
    }
    void TearDown() override {
        close_debug_log();
        faults().reset();
        umask(old_mask_);
        unsetenv("TZ");
        tzset();
    }

    int open(int mode = 0666) {
        int status = -1;
        open_debug_log(directory_.path().c_str(), "prog", "name", mode, &status);
        return status;
    }

    std::string file() const { return directory_.path("prog/name." + today() + ".log"); }

    // The text of the last record: what follows "FUNCTION: ".
    std::string text_of_record() const {
        const std::string all = read_file(file());
        const std::size_t start = all.find("fn: ");
        return start == std::string::npos ? all : all.substr(start + 4);
    }

    TemporaryDirectory directory_;
    mode_t old_mask_ = umask(022);
};

// First, while nothing has asked for the number yet.
TEST_F(DebugLog, CarriesTheProcessThatOpenedItUntilAnotherAsks) {
    ASSERT_EQ(open(), 0);
    const std::string opener = std::to_string(getpid());
    const pid_t child = fork();
    if (child == 0) {
        logmsg(2, "untold", "fn");
        log_set_pid();
        logmsg(2, "told", "fn");
        _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    ASSERT_EQ(status, 0);
    const std::string all = read_file(file());
    EXPECT_NE(all.find("Z [" + opener + "] <2> fn: untold\n"), std::string::npos) << all;
    EXPECT_NE(all.find("Z [" + std::to_string(child) + "] <2> fn: told\n"), std::string::npos) << all;
}

TEST_F(DebugLog, WritesOneLineWithTimeProcessLevelFunctionAndText) {
    ASSERT_EQ(open(), 0);
    log_set_pid();
    const auto before = std::chrono::system_clock::now();
    logmsgf(4, "QvRepoHelper::copySja", "Copied [%s] in %d steps.", "a b", 3);
    const auto after = std::chrono::system_clock::now();

    const std::string line = read_file(file());
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(
        line, parts,
        std::regex(
            "(\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d)\\.(\\d{3})Z \\[(\\d+)\\] <4> QvRepoHelper::copySja: Copied \\[a b\\] in 3 steps\\.\n")))
        << line;
    EXPECT_EQ(parts[3], std::to_string(getpid()));
    std::tm time{};
    ASSERT_NE(strptime(parts[1].str().c_str(), "%Y-%m-%dT%H:%M:%S", &time), nullptr);
    const auto written = std::chrono::system_clock::from_time_t(timegm(&time)) +
                         std::chrono::milliseconds(std::stoi(parts[2]));
    EXPECT_GE(written, before - std::chrono::milliseconds(1)) << "the time is UTC, to the millisecond";
    EXPECT_LE(written, after);
}

TEST_F(DebugLog, WritesEveryLevel) {
    ASSERT_EQ(open(), 0);
    for (const int level : {2, 4, 16, 0, 1, -1, 99})
        logmsg(level, "text", "fn");
    std::istringstream lines(read_file(file()));
    std::vector<std::string> levels;
    for (std::string line; std::getline(lines, line);)
        levels.push_back(line.substr(line.find('<'), line.find('>') - line.find('<') + 1));
    EXPECT_EQ(levels, (std::vector<std::string>{"<2>", "<4>", "<16>", "<0>", "<1>", "<-1>", "<99>"}));
}

TEST_F(DebugLog, EscapesEveryControlCharacterAndNothingElse) {
    ASSERT_EQ(open(), 0);
    std::string text;
    std::string expected;
    for (int c = 1; c < 256; ++c) {
        text += static_cast<char>(c);
        char escape[8];
        static_cast<void>(std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned>(c)));
        expected += c == '\n'               ? "\\n"
                    : c == '\r'             ? "\\r"
                    : c == '\t'             ? "\\t"
                    : c < 0x20 || c == 0x7f ? escape
                                            : std::string(1, static_cast<char>(c));
    }
    logmsg(2, text.c_str(), "fn");
    EXPECT_EQ(text_of_record(), expected + "\n");
}

TEST_F(DebugLog, EscapesTheArgumentsOfAFormatToo) {
    ASSERT_EQ(open(), 0);
    logmsgf(2, "fn", "[%s]\n", "a\r\n2026-11-20T23:34:00.123Z [1] <16> main: forged");
    EXPECT_EQ(text_of_record(), "[a\\r\\n2026-11-20T23:34:00.123Z [1] <16> main: forged]\\n\n");
}

TEST_F(DebugLog, TakesAFixedTextAsItIs) {
    ASSERT_EQ(open(), 0);
    logmsg(2, "100%s %n %d", "fn");
    EXPECT_EQ(text_of_record(), "100%s %n %d\n");
}

TEST_F(DebugLog, NeverCutsARecord) {
    ASSERT_EQ(open(), 0);
    for (const std::size_t size : {0UL, 249UL, 250UL, 4096UL, 5UL << 20U}) {
        std::filesystem::remove(file());
        ASSERT_EQ(open(), 0);
        const std::string text(size, 'x');
        logmsgf(2, "fn", "<%s>", text.c_str());
        EXPECT_TRUE(text_of_record() == "<" + text + ">\n") << size;
    }
}

TEST_F(DebugLog, WritesARecordWithASingleCallWhateverItsLength) {
    ASSERT_EQ(open(), 0);
    if (writes_so_far() < 0)
        GTEST_SKIP() << "this kernel does not count the calls of a process";
    const std::string controls(3U << 20U, '\n');
    const long before = writes_so_far();
    logmsg(2, "short", "fn");
    EXPECT_EQ(writes_so_far(), before + 1);
    logmsgf(2, "fn", "%s", controls.c_str());
    EXPECT_EQ(writes_so_far(), before + 2);
}

TEST_F(DebugLog, WritesARecordThatASignalInterrupted) {
    ASSERT_EQ(open(), 0);
    faults().fail_next("write", EINTR);
    logmsg(2, "text", "fn");
    EXPECT_EQ(text_of_record(), "text\n");
}

TEST_F(DebugLog, KeepsRecordsOfProcessesApart) {
    constexpr int processes = 4;
    constexpr int records = 50;
    ASSERT_EQ(open(), 0);
    close_debug_log();
    for (int i = 0; i < processes; ++i) {
        if (fork() == 0) {
            int status = -1;
            open_debug_log(directory_.path().c_str(), "prog", "name", 0666, &status);
            log_set_pid();
            const std::string text(20000, static_cast<char>('a' + i));
            for (int n = 0; n < records; ++n)
                logmsg(2, text.c_str(), "fn");
            _exit(status);
        }
    }
    for (int i = 0; i < processes; ++i) {
        int status = -1;
        wait(&status);
        EXPECT_EQ(status, 0);
    }
    const std::regex form("\\S+ \\[(\\d+)\\] <2> fn: ");
    std::map<std::string, int> records_of_process;
    std::istringstream lines(read_file(file()));
    for (std::string line; std::getline(lines, line);) {
        std::smatch head;
        const std::string start = line.substr(0, line.find("fn: ") + 4);
        ASSERT_TRUE(std::regex_match(start, head, form)) << start;
        ASSERT_EQ(line.substr(start.size()), std::string(20000, line.back()));
        ++records_of_process[head[1]];
    }
    EXPECT_EQ(records_of_process.size(), static_cast<std::size_t>(processes));
    for (const auto& process : records_of_process)
        EXPECT_EQ(process.second, records) << "process " << process.first;
}

TEST_F(DebugLog, AppendsToTheFileOfTheDay) {
    write_file(file(), "earlier\n");
    ASSERT_EQ(open(), 0);
    logmsg(2, "later", "fn");
    const std::string all = read_file(file());
    EXPECT_EQ(all.substr(0, 8), "earlier\n");
    EXPECT_EQ(text_of_record(), "later\n");
}

TEST_F(DebugLog, MakesItsFileWithTheModeLessTheMask) {
    struct Row {
        mode_t mask;
        int mode;
        mode_t expected;
    };
    for (const Row& row :
         {Row{022, 0666, 0644}, Row{0, 0666, 0666}, Row{077, 0666, 0600}, Row{0, 0640, 0640}}) {
        std::filesystem::remove(file());
        umask(row.mask);
        ASSERT_EQ(open(row.mode), 0);
        struct stat status {};
        ASSERT_EQ(stat(file().c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777U, row.expected) << std::oct << row.mode << " less " << row.mask;
    }
}

TEST_F(DebugLog, KeepsTheModeOfAFileThatIsThere) {
    write_file(file(), "");
    ASSERT_EQ(chmod(file().c_str(), 0600), 0);
    ASSERT_EQ(open(), 0);
    struct stat status {};
    ASSERT_EQ(stat(file().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(DebugLog, WritesNothingWhenTheDirectoryIsMissing) {
    std::filesystem::remove(directory_.path("prog"));
    EXPECT_EQ(open(), ENOENT);
    logmsg(16, "text", "fn");
    EXPECT_EQ(directory_.names(), std::vector<std::string>{});
}

TEST_F(DebugLog, ReturnsWhyItCannotBeOpened) {
    std::filesystem::create_directory(file());
    EXPECT_EQ(open(), EISDIR);
    std::filesystem::remove(file());
    std::filesystem::remove(directory_.path("prog"));
    write_file(directory_.path("prog"), "");
    EXPECT_EQ(open(), ENOTDIR);
    int status = -1;
    open_debug_log(nullptr, "prog", "name", 0666, &status);
    EXPECT_EQ(status, EINVAL);
    open_debug_log(directory_.path().c_str(), nullptr, "name", 0666, &status);
    EXPECT_EQ(status, EINVAL);
    open_debug_log(directory_.path().c_str(), "prog", nullptr, 0666, &status);
    EXPECT_EQ(status, EINVAL);
    logmsgf(16, "fn", "%s", "goes nowhere");
    EXPECT_EQ(directory_.names(), std::vector<std::string>{"prog"});
}

TEST_F(DebugLog, IsNeverAPipeADeviceOrASymbolicLink) {
    ASSERT_EQ(mkfifo(file().c_str(), 0666), 0);
    EXPECT_EQ(open(), EINVAL);
    std::filesystem::remove(file());
    // A device cannot be made here, so one is bound to the name.
    write_file(file(), "");
    ASSERT_EQ(mount("/dev/null", file().c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(open(), EINVAL);
    ASSERT_EQ(umount(file().c_str()), 0);
    std::filesystem::remove(file());
    write_file(directory_.path("target"), "");
    std::filesystem::create_symlink(directory_.path("target"), file());
    EXPECT_EQ(open(), ELOOP);
    logmsg(16, "text", "fn");
    EXPECT_EQ(read_file(directory_.path("target")), "");
}

TEST_F(DebugLog, IsClosedAfterAFailedOpening) {
    ASSERT_EQ(open(), 0);
    int status = -1;
    open_debug_log(directory_.path("missing").c_str(), "prog", "name", 0666, &status);
    EXPECT_EQ(status, ENOENT);
    logmsg(2, "text", "fn");
    EXPECT_EQ(read_file(file()), "");
}

TEST_F(DebugLog, MovesToTheFileOpenedLast) {
    ASSERT_EQ(open(), 0);
    std::filesystem::create_directory(directory_.path("other"));
    int status = -1;
    open_debug_log(directory_.path().c_str(), "other", "name", 0666, &status);
    ASSERT_EQ(status, 0);
    logmsg(2, "text", "fn");
    EXPECT_EQ(read_file(file()), "");
    EXPECT_NE(read_file(directory_.path("other/name." + today() + ".log")), "");
}

TEST_F(DebugLog, DoesNothingBeforeItIsOpenedOrAfterItIsClosed) {
    logmsg(16, "text", "fn");
    logmsgf(16, "fn", "%d", 1);
    close_debug_log();
    ASSERT_EQ(open(), 0);
    close_debug_log();
    logmsg(16, "text", "fn");
    logmsgf(16, "fn", "%d", 1);
    EXPECT_EQ(read_file(file()), "");
}

TEST_F(DebugLog, DoesNotRenderWhileItIsClosed) {
    int written = 0;
    logmsgf(2, "fn", "%d%n", 1, &written);
    EXPECT_EQ(written, 0);
}

TEST_F(DebugLog, TakesNullTextsAsEmpty) {
    ASSERT_EQ(open(), 0);
    logmsg(2, nullptr, "fn");
    EXPECT_EQ(text_of_record(), "\n");
    logmsg(2, "text", nullptr);
    const std::string all = read_file(file());
    EXPECT_EQ(all.substr(all.rfind('>')), "> : text\n");
}

TEST_F(DebugLog, WritesTheFormatOfATextThatCannotBeRendered) {
    ASSERT_EQ(open(), 0);
    // The C locale has no bytes for such a wide character.
    logmsgf(2, "fn", "body\n%ls", L"\x20ac");
    EXPECT_EQ(text_of_record(), "body\\n%ls\n");
}

TEST_F(DebugLog, LosesARecordOnAFullDiskInSilence) {
    ASSERT_EQ(mount("full", directory_.path("prog").c_str(), "tmpfs", 0, "size=16k"), 0);
    ASSERT_EQ(open(), 0);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    logmsg(2, std::string(100000, 'x').c_str(), "fn");
    logmsgf(2, "fn", "%s", std::string(100000, 'y').c_str());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    close_debug_log();
    ASSERT_EQ(umount(directory_.path("prog").c_str()), 0);
}

TEST_F(DebugLog, ClosesARecordThatAFullDiskCut) {
    const SmallVolume volume("size=8k");
    std::filesystem::create_directory(volume.path("prog"));
    const auto open_on_volume = [&] {
        int status = -1;
        open_debug_log(volume.path().c_str(), "prog", "name", 0666, &status);
        return status;
    };
    const std::string log = volume.path("prog/name." + today() + ".log");
    for (const bool by_another_process : {false, true}) {
        std::filesystem::remove(log);
        ASSERT_EQ(open_on_volume(), 0);
        write_file(volume.path("filler"), std::string(4096, 'x'));
        logmsg(2, std::string(5000, 'x').c_str(), "cut");
        ASSERT_EQ(std::filesystem::file_size(log), 4096U);
        logmsg(2, "lost", "fn");
        std::filesystem::remove(volume.path("filler"));
        if (by_another_process)
            open_on_volume();
        logmsg(2, "one", "fn");
        logmsg(2, "two", "fn");
        const std::string all = read_file(log);
        EXPECT_TRUE(std::regex_match(all.substr(4096),
                                     std::regex("\n\\S+ \\S+ <2> fn: one\n\\S+ \\S+ <2> fn: two\n")))
            << all.substr(4090);
        close_debug_log();
    }
}

TEST_F(DebugLog, WritesOnThoughItsFileCannotBeRead) {
    write_file(file(), "cut");
    ASSERT_EQ(open(), 0);
    faults().fail_next("read", EIO);
    logmsg(2, "text", "fn");
    EXPECT_EQ(text_of_record(), "text\n");
}

TEST_F(DebugLog, WritesOnWhileAStrangerHoldsALockOnItsFile) {
    write_file(file(), "cut");
    ASSERT_EQ(open(), 0);
    const FileDescriptor stranger(::open(file().c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(stranger.get(), LOCK_EX), 0);
    logmsg(2, "text", "fn");
    EXPECT_EQ(text_of_record(), "text\n");
}

TEST_F(DebugLog, IsReadBackByTheCaptureOfOtherTests) {
    const LogCapture log;
    logmsg(2, "one", "first");
    logmsgf(16, "Second::call", "%s", "two");
    EXPECT_EQ(log.records(), (std::vector<LogRecord>{{2, "first", "one"}, {16, "Second::call", "two"}}));
}

} // namespace
