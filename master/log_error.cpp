#include "master/log_error.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <sys/stat.h>
#include <syslog.h>

namespace {

bool is_journal(FILE* stream) {
    const char* const journal = std::getenv("JOURNAL_STREAM"); // DEVICE:INODE
    struct stat status {};
    return journal != nullptr && fstat(fileno(stream), &status) == 0 &&
           journal == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

void write_line(int priority, const std::string& text) {
    static const bool journal = is_journal(stderr);
    std::string line = (journal ? "<" + std::to_string(priority) + ">" : "") + "qvmaster: ";
    for (const char c : text) {
        const bool control = static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
        line += control ? '?' : c;
    }
    line += '\n';
    // A failure here cannot be reported anywhere.
    static_cast<void>(std::fwrite(line.data(), 1, line.size(), stderr));
}

using Clock = std::chrono::steady_clock;

// What was logged in the current minute.
struct Minute {
    std::mutex mutex;
    Clock::time_point begun;
    int lines = 0;
};

void write_bounded(Minute& minute, int priority, const std::string& text) {
    const std::lock_guard<std::mutex> lock(minute.mutex);
    if (Clock::now() >= minute.begun + std::chrono::minutes(1)) {
        if (minute.lines > MAX_LOG_LINES)
            write_line(priority,
                       std::to_string(minute.lines - MAX_LOG_LINES) + " further lines were left out");
        minute.begun = Clock::now();
        minute.lines = 0;
    }
    if (++minute.lines <= MAX_LOG_LINES)
        write_line(priority, text);
}

void log(Minute& minute, int priority, const std::string& text) noexcept {
    try {
        write_bounded(minute, priority, text);
    } catch (const std::exception&) {
        static_cast<void>(std::fputs("qvmaster: out of memory\n", stderr));
    }
}

} // namespace

void log_error(const std::string& text) noexcept {
    static Minute minute;
    log(minute, LOG_ERR, text);
}

void log_warning(const std::string& text) noexcept {
    static Minute minute;
    log(minute, LOG_WARNING, text);
}
