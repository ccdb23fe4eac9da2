// Runs code in a child process: with a system call that fails, with files that may not grow past a limit, or
// to see how much memory it takes.

#ifndef TESTS_SUPPORT_CHILD_PROCESS_H
#define TESTS_SUPPORT_CHILD_PROCESS_H

#include <cstddef>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef QVREPO_COVERAGE
extern "C" void
__gcov_dump(); // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the compiler's

// Keeps what ran in a child process, which leaves without the steps that would do it. Each child gets a
// directory of its own below the one that QV_COVERAGE_CHILDREN names: one that cannot read could not add to what
// is there.
inline void keep_coverage() {
    const char* directory = std::getenv("QV_COVERAGE_CHILDREN");
    if (directory == nullptr)
        return;
    setenv("GCOV_PREFIX", (std::string(directory) + "/" + std::to_string(getpid())).c_str(), 1);
    __gcov_dump();
}
#else
inline void keep_coverage() {}
#endif

// Makes every later call of the system call `number` fail with `error`, for the rest of the process's life.
inline void make_syscall_fail(int number, int error) {
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (static_cast<unsigned>(error) & SECCOMP_RET_DATA)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter = {sizeof program / sizeof program[0], program};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
        throw std::runtime_error("no system call filter");
}

// Runs `body` in a child process and returns how it ended: the value of `body` (0 to 127), or 128 + the
// signal that killed the child.
template <typename Body>
int in_child(const Body& body) {
    const pid_t child = fork();
    if (child < 0)
        throw std::runtime_error("no child process");
    if (child == 0) {
        int result = 127;
        try {
            result = body();
        } catch (...) { // the result says so
        }
        keep_coverage();
        _exit(result);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// The same with the system call `number` failing with `error`.
template <typename Body>
int with_failing_syscall(int number, int error, const Body& body) {
    return in_child([&] {
        make_syscall_fail(number, error);
        return body();
    });
}

// The same with SIGXFSZ, which kills unless it is ignored, in the middle of the write that takes a file past
// `size`.
template <typename Body>
int with_file_size_limit(rlim_t size, const Body& body) {
    return in_child([&] {
        const rlimit limit = {size, size};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
            throw std::runtime_error("no file size limit");
        const rlimit no_core = {0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        return body();
    });
}

// Does `first` and then `second` in a child process, and returns by how many KiB the second raised the most
// memory that the process had ever had; -1 when one of them threw.
template <typename First, typename Second>
long memory_growth(const First& first, const Second& second) {
    const auto most_memory = [] {
        rusage usage = {};
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_maxrss;
    };
    int ends[2];
    if (pipe(ends) != 0)
        throw std::runtime_error("no pipe");
    in_child([&] {
        first();
        const long before = most_memory();
        second();
        const long growth = most_memory() - before;
        return write(ends[1], &growth, sizeof growth) == sizeof growth ? 0 : 1;
    });
    close(ends[1]);
    long growth = -1;
    if (read(ends[0], &growth, sizeof growth) != sizeof growth)
        growth = -1;
    close(ends[0]);
    return growth;
}

#endif
