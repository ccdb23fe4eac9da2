#include "platform/regular_file.h"

#include "tests/support/temporary_directory.h"
#include "tests/unit/platform/system_faults.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/stat.h>

namespace {

class RegularFile : public ::testing::Test {
  protected:
    void TearDown() override { faults().reset(); }

    int read(const std::string& name, std::size_t limit) {
        bytes_ = "left over";
        return read_regular_file(directory_.path(name).c_str(), limit, bytes_);
    }

    TemporaryDirectory directory_;
    std::string bytes_;
};

TEST_F(RegularFile, IsReadWholeUpToTheLimit) {
    const std::string all("a\0b\n", 4);
    write_file(directory_.path("file"), all);
    EXPECT_EQ(read("file", 4), 0);
    EXPECT_EQ(bytes_, all);
}

TEST_F(RegularFile, AboveTheLimitIsRefused) {
    write_file(directory_.path("file"), "12345");
    EXPECT_EQ(read("file", 4), EFBIG);
    EXPECT_EQ(bytes_, "");
}

TEST_F(RegularFile, MayBeEmpty) {
    write_file(directory_.path("file"), "");
    EXPECT_EQ(read("file", 4), 0);
    EXPECT_EQ(bytes_, "");
}

TEST_F(RegularFile, IsNotADirectoryPipeOrMissingName) {
    ASSERT_EQ(mkfifo(directory_.path("pipe").c_str(), 0600), 0);
    EXPECT_EQ(read("pipe", 4), EINVAL);
    EXPECT_EQ(read("", 4), EISDIR);
    EXPECT_EQ(read("missing", 4), ENOENT);
    EXPECT_EQ(bytes_, "");
}

TEST_F(RegularFile, IsReadOnAfterASignal) {
    write_file(directory_.path("file"), "text");
    faults().fail_next("read", EINTR);
    EXPECT_EQ(read("file", 4), 0);
    EXPECT_EQ(bytes_, "text");
}

TEST_F(RegularFile, ThatIsCutWhileItIsReadEndsWhereItWasCut) {
    write_file(directory_.path("file"), "a text");
    faults().read_limit = 3;
    EXPECT_EQ(read("file", 10), 0);
    EXPECT_EQ(bytes_, "a t");
}

TEST_F(RegularFile, ThatCannotBeReadLeavesNothing) {
    write_file(directory_.path("file"), "text");
    faults().fail_next("read", EIO);
    EXPECT_EQ(read("file", 4), EIO);
    EXPECT_EQ(bytes_, "");
}

} // namespace
