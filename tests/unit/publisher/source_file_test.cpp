#include "publisher/source_file.h"

#include "tests/support/child_process.h"
#include "tests/support/sja_builder.h"
#include "tests/unit/publisher/user_errors.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include <fcntl.h>

namespace {

class FileToPack : public ::testing::Test {
  protected:
    FileToPack() { write_file(path_, std::string(600000, 'a') + "end"); }

    // Reads the file, and does `during` when the first chunk has come.
    std::string read_with(const std::function<void()>& during) const {
        const SourceFile source = examine_source(path_);
        return error_of([&] {
            bool first = true;
            read_source(source, 0, [&](const char* /*bytes*/, std::size_t /*count*/) {
                if (std::exchange(first, false))
                    during();
            });
        });
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.path("file");
    std::string changed_ = path_ + " changed while it was being read";
};

} // namespace

TEST_F(FileToPack, IsKnownByNameSizeAndMode) {
    std::filesystem::permissions(path_, std::filesystem::perms(04751));
    const SourceFile source = examine_source(path_);
    EXPECT_EQ(source.name, "file");
    EXPECT_EQ(source.size(), 600003U);
    EXPECT_EQ(source.mode(), 04751U);
}

TEST_F(FileToPack, IsReadFromAnyOffsetToItsEnd) {
    const SourceFile source = examine_source(path_);
    for (const std::uint64_t from : {0U, 1U, 262144U, 599999U, 600003U}) {
        std::string bytes;
        read_source(source, from, [&](const char* chunk, std::size_t count) { bytes.append(chunk, count); });
        EXPECT_TRUE(bytes == read_file(path_).substr(from)) << from;
    }
}

TEST_F(FileToPack, IsRefusedWhenItChangesWhileItIsRead) {
    EXPECT_EQ(read_with([] {}), "done");
    EXPECT_EQ(read_with([this] { std::filesystem::resize_file(path_, 300000); }), changed_);
    write_file(path_, std::string(600000, 'a'));
    EXPECT_EQ(read_with([this] { append_byte(path_); }), changed_);
    EXPECT_EQ(read_with([this] { std::filesystem::resize_file(path_, 0); }), changed_);
}

TEST_F(FileToPack, IsRefusedWhenItIsWrittenToInPlace) {
    // An hour ago, so that writing sets another time whatever the clock's grain.
    const auto earlier = std::filesystem::file_time_type::clock::now() - std::chrono::hours(1);
    std::filesystem::last_write_time(path_, earlier);
    EXPECT_EQ(read_with([this] { flip_byte(path_, 600002); }), changed_);
}

TEST_F(FileToPack, IsRefusedWhenItIsWrittenToInPlaceAndItsTimeIsPutBack) {
    const auto time = std::filesystem::last_write_time(path_);
    EXPECT_EQ(read_with([&] {
                  // Longer than the grain of the clock of files.
                  std::this_thread::sleep_for(std::chrono::milliseconds(20));
                  flip_byte(path_, 600002);
                  std::filesystem::last_write_time(path_, time);
              }),
              changed_);
}

TEST_F(FileToPack, IsRefusedWhenAnotherFileHasTakenItsName) {
    const SourceFile source = examine_source(path_);
    write_file(directory_.path("other"), read_file(path_));
    std::filesystem::rename(directory_.path("other"), path_);
    EXPECT_EQ(error_of([&] { read_source(source, 0, [](const char*, std::size_t) {}); }), changed_);
}

TEST_F(FileToPack, IsRefusedWhenItCannotBeRead) {
    const SourceFile source = examine_source(path_);
    const int result = with_failing_syscall(SYS_read, EIO, [&] {
        return error_of([&] { read_source(source, 0, [](const char*, std::size_t) {}); }) ==
                       "cannot read " + path_ + ": Input/output error"
                   ? 7
                   : 8;
    });
    EXPECT_EQ(result, 7);
    std::filesystem::remove(path_);
    EXPECT_EQ(error_of([&] { read_source(source, 0, [](const char*, std::size_t) {}); }),
              "cannot read " + path_ + ": No such file or directory");
}

TEST(SameFile, IsOneThatIsThereOrWouldBeMade) {
    const TemporaryDirectory directory;
    for (const char* name : {"a", "b"})
        write_file(directory.path(name), "");
    std::filesystem::create_hard_link(directory.path("a"), directory.path("hard"));
    std::filesystem::create_symlink("a", directory.path("soft"));
    std::filesystem::create_directory_symlink(".", directory.path("here"));
    const struct {
        std::string first;
        std::string second;
        bool same;
    } cases[] = {
        {"a", "a", true},          {"a", "here/./a", true}, {"a", "hard", true},      {"a", "soft", true},
        {"a", "b", false},         {"a", "new", false},     {"new", "a", false},      {"new", "new", true},
        {"new", "here/new", true}, {"new", "newer", false}, {"no/new", "new", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(is_same_file(directory.path(c.first), directory.path(c.second)), c.same)
            << c.first << " " << c.second;
    EXPECT_TRUE(is_same_file("new", "./new"));
    EXPECT_FALSE(is_same_file("", directory.path("a")));
}
