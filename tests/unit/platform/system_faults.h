// Wraps some system calls of the code under test, to count them and to make them fail on request.
//
// The calls are the ones that this directory's CMakeLists.txt names; all pass to the system unless a test says
// otherwise.

#ifndef TESTS_UNIT_PLATFORM_SYSTEM_FAULTS_H
#define TESTS_UNIT_PLATFORM_SYSTEM_FAULTS_H

#include <cerrno>
#include <cstddef>
#include <map>
#include <optional>
#include <string>

class SystemFaults {
  public:
    // The next call of `call`, after `passed` that succeed, fails with `error`.
    void fail_next(const std::string& call, int error, int passed = 0) { faults_[call] = {error, passed, 1}; }
    // Every call of `call` fails with `error`.
    void fail_always(const std::string& call, int error) { faults_[call] = {error, 0, -1}; }
    // The process is killed as it enters `call`, after `passed` calls that succeed.
    void kill_at(const std::string& call, int passed = 0) { faults_[call] = {KILL, passed, 1}; }
    // The process is stopped as it enters `call`, after `passed` calls that succeed. When it is
    // continued, the call fails with `error`, or succeeds where that is 0.
    void stop_at(const std::string& call, int error = 0, int passed = 0) {
        faults_[call] = {error, passed, 1, true};
    }
    // `signal` arrives as the process enters `call`, which succeeds.
    void signal_at(const std::string& call, int signal) { signals_[call] = signal; }

    // The flags of openat that fail, as on a file system that does not know them, and how.
    int unknown_open_flags = 0;
    int unknown_open_flags_error = EOPNOTSUPP;
    // What copy_file_range moves in all before it claims to be at the end of the file.
    std::optional<std::size_t> copy_limit;
    // What read delivers in all before it claims to be at the end of the file.
    std::optional<std::size_t> read_limit;
    // Whether the file system shares blocks between files, as some do on request.
    bool shares_blocks = false;
    // What geteuid answers.
    std::optional<unsigned> effective_user;

    // How often a call was made.
    int count(const std::string& call) const {
        const auto found = counts_.find(call);
        return found == counts_.end() ? 0 : found->second;
    }

    void reset() { *this = SystemFaults(); }

    // For the wrappers: counts the call; true, with errno set, when it has to fail.
    bool fails(const std::string& call);

  private:
    static constexpr int KILL = -1;
    struct Fault {
        int error;
        int passed;
        int times;
        bool stops = false;
    };
    std::map<std::string, Fault> faults_;
    std::map<std::string, int> counts_;
    std::map<std::string, int> signals_;
};

// The one that the wrappers ask. Reset it when a test is over.
SystemFaults& faults();

#endif
