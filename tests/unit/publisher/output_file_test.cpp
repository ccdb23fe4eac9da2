#include "publisher/output_file.h"

#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"
#include "tests/unit/publisher/user_errors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include <fcntl.h>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// From here on this process meets file systems that have neither nameless files nor links.
void make_file_systems_simple() {
    make_syscall_fail(SYS_linkat, EPERM);
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, O_TMPFILE & ~O_DIRECTORY, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EOPNOTSUPP),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter = {sizeof program / sizeof program[0], program};
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
        throw std::runtime_error("no system call filter");
}

class NewFile : public ::testing::Test {
  protected:
    // Two writers, both of which found the name free.
    std::string write_twice() const {
        OutputFile first(path_, 0600);
        first.write("first", 5);
        first.commit_new();
        OutputFile second(path_, 0600);
        return error_of([&] { second.commit_new(); });
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.path("file");
};

} // namespace

TEST_F(NewFile, TakesNoNameFromAnother) {
    EXPECT_EQ(write_twice(), path_ + " exists already; --force replaces it");
    EXPECT_EQ(read_file(path_), "first");
    EXPECT_THAT(directory_.names(), ElementsAre("file"));
}

TEST_F(NewFile, TakesNoNameFromAnotherWhereThereAreNoLinks) {
    EXPECT_EQ(in_child([&] {
                  make_file_systems_simple();
                  return write_twice() == path_ + " exists already; --force replaces it" ? 7 : 8;
              }),
              7);
    EXPECT_EQ(read_file(path_), "first");
    EXPECT_THAT(directory_.names(), ElementsAre("file"));
}

TEST_F(NewFile, IsRemovedAgainUnlessAnotherHasItsName) {
    OutputFile file(path_, 0600);
    file.commit_new();
    EXPECT_TRUE(file.is_in_place());
    write_file(directory_.path("other"), "other");
    std::filesystem::rename(directory_.path("other"), path_);
    EXPECT_FALSE(file.is_in_place());
    file.remove();
    EXPECT_EQ(read_file(path_), "other");
    OutputFile again(directory_.path("again"), 0600);
    again.commit_new();
    again.remove();
    EXPECT_THAT(directory_.names(), ElementsAre("file"));
}
