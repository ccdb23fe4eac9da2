#include "files/QvRepoHelper.h"

#include "tests/support/sja_builder.h"
#include "tests/support/small_volume.h"

#include <gtest/gtest.h>

#include <sstream>

#include <sys/stat.h>

TEST(SameFile, ComparesDeviceAndInode) {
    const TemporaryDirectory directory;
    const std::string file = directory.path("file");
    write_file(file, "x");
    write_file(directory.path("copy"), "x");
    std::filesystem::create_hard_link(file, directory.path("hard"));
    std::filesystem::create_symlink("file", directory.path("soft"));
    std::filesystem::create_symlink("nothing", directory.path("dangling"));

    EXPECT_TRUE(QvRepoHelper::sameFile(file, file));
    EXPECT_TRUE(QvRepoHelper::sameFile(file, directory.path(".") + "/file"));
    EXPECT_TRUE(QvRepoHelper::sameFile(file, directory.path("hard")));
    EXPECT_TRUE(QvRepoHelper::sameFile(directory.path("soft"), file));
    EXPECT_FALSE(QvRepoHelper::sameFile(file, directory.path("copy")));
    EXPECT_FALSE(QvRepoHelper::sameFile(file, directory.path("missing")));
    EXPECT_FALSE(QvRepoHelper::sameFile(directory.path("missing"), file));
    EXPECT_FALSE(QvRepoHelper::sameFile(directory.path("missing"), directory.path("missing")));
    EXPECT_FALSE(QvRepoHelper::sameFile(directory.path("dangling"), directory.path("dangling")));
}

TEST(SameFile, DistinguishesFilesOfOneNumberOnTwoDevices) {
    const SmallVolume first("size=64k");
    const SmallVolume second("size=64k");
    struct stat files[2] = {};
    int i = 0;
    for (const SmallVolume* volume : {&first, &second}) {
        write_file(volume->path("file"), "x");
        ASSERT_EQ(stat(volume->path("file").c_str(), &files[i++]), 0);
    }
    ASSERT_EQ(files[0].st_ino, files[1].st_ino);
    EXPECT_FALSE(QvRepoHelper::sameFile(first.path("file"), second.path("file")));
}

TEST(FileSize, IsInBytesAndZeroForWhatCannotBeExamined) {
    const TemporaryDirectory directory;
    write_file(directory.path("five"), "12345");
    write_file(directory.path("empty"), "");
    write_sparse_file(directory.path("large"), (std::uint64_t{5} << 30) + 7);

    EXPECT_EQ(QvRepoHelper::fileSize(directory.path("five").c_str()), 5U);
    EXPECT_EQ(QvRepoHelper::fileSize(directory.path("empty").c_str()), 0U);
    EXPECT_EQ(QvRepoHelper::fileSize(directory.path("large").c_str()), (std::uint64_t{5} << 30) + 7);
    EXPECT_EQ(QvRepoHelper::fileSize(directory.path("missing").c_str()), 0U);
}

TEST(PathExists, IsTrueForFilesAndDirectorys) {
    const TemporaryDirectory directory;
    write_file(directory.path("file"), "");
    std::filesystem::create_symlink("nothing", directory.path("dangling"));

    EXPECT_TRUE(QvRepoHelper::pathExists(directory.path("file").c_str()));
    EXPECT_TRUE(QvRepoHelper::pathExists(directory.path().c_str()));
    EXPECT_FALSE(QvRepoHelper::pathExists(directory.path("missing").c_str()));
    EXPECT_FALSE(QvRepoHelper::pathExists(directory.path("dangling").c_str()));
    EXPECT_FALSE(QvRepoHelper::pathExists(""));
    EXPECT_FALSE(QvRepoHelper::pathExists(nullptr));
}

TEST(SjaExtension, IsTheEndOfTheNameInAnyLetterCase) {
    const std::pair<const char*, bool> cases[] = {
        {"package.sja", true},
        {"PACKAGE.SJA", true},
        {"package.sJa", true},
        {".sja", true},
        {".SJA", true},
        {"a.sja.sja", true},
        {"dir.sja/x.Sja", true},
        {"package.sja.gz", false},
        {"package.sja ", false},
        {"package.sj", false},
        {"packagesja", false},
        {"sja", false},
        {"", false},
        {"package.sja1", false},
        {"package", false},
        {".sj", false},
    };
    for (const auto& [name, expected] : cases)
        EXPECT_EQ(QvRepoHelper::isSjaExtension(name), expected) << "'" << name << "'";
}

TEST(ConfirmAction, TakesALineThatBeginsWithYAsYes) {
    const std::pair<const char*, int> cases[] = {
        {"y\n", 1},   {"Y\n", 1}, {"yes\n", 1}, {"Yodel\n", 1}, {"y", 1},      {"y\nn\n", 1},
        {"yn\n", 1},  {"n\n", 0}, {"no\n", 0},  {"\n", 0},      {"", 0},       {" y\n", 0},
        {"\ny\n", 0}, {"1\n", 0}, {"\ty\n", 0}, {"ny\n", 0},    {"\xff\n", 0},
    };
    for (const auto& [answer, expected] : cases) {
        std::istringstream in(answer);
        std::ostringstream out;
        EXPECT_EQ(QvRepoHelper::confirmAction("Delete it? [y/n] ", out, in), expected)
            << "'" << answer << "'";
        EXPECT_EQ(out.str(), "Delete it? [y/n] ");
    }
}

TEST(ConfirmAction, ReadsOneLineAndNoMore) {
    std::istringstream in("no\nrest\n");
    std::ostringstream out;
    QvRepoHelper::confirmAction("", out, in);
    std::string rest;
    std::getline(in, rest);
    EXPECT_EQ(rest, "rest");
}

TEST(ConfirmAction, ShowsThePromptBeforeItReads) {
    // An output that is flushed before the answer is asked for.
    class Prompted : public std::stringbuf {
      public:
        bool flushed = false;

      protected:
        int sync() override {
            flushed = str() == "Sure? ";
            return 0;
        }
    } prompted;
    std::ostream out(&prompted);
    std::istringstream in("y\n");
    EXPECT_EQ(QvRepoHelper::confirmAction("Sure? ", out, in), 1);
    EXPECT_TRUE(prompted.flushed);
}

TEST(ConfirmAction, TakesABrokenInputAsNo) {
    std::istringstream in("y\n");
    in.setstate(std::ios::badbit);
    std::ostringstream out;
    EXPECT_EQ(QvRepoHelper::confirmAction("Sure? ", out, in), 0);
}
