#include "platform/debug_log.h"

#include "platform/file_descriptor.h"
#include "platform/hex.h"
#include "platform/utc_time.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

FileDescriptor log_file;
pid_t recorded_pid = 0;

// Returns 0 or an errno. A pipe of that name does not block, and a symbolic link is not followed.
int open_log_file(const char* path, mode_t mode) {
    FileDescriptor file(
        open(path, O_RDWR | O_CREAT | O_APPEND | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY, mode));
    struct stat status {};
    if (!file.is_open() || fstat(file.get(), &status) != 0)
        return errno;
    if (!S_ISREG(status.st_mode))
        return EINVAL;
    log_file = std::move(file);
    return 0;
}

// "TIME [PID] <LEVEL> FUNCTION: "
std::string head_of_record(int level, const char* function) {
    return utc_timestamp() + " [" + std::to_string(recorded_pid) + "] <" + std::to_string(level) + "> " +
           (function == nullptr ? "" : function) + ": ";
}

std::size_t escaped_size(unsigned char c) {
    if (c == '\n' || c == '\r' || c == '\t')
        return 2;
    return c < 0x20 || c == 0x7f ? 4 : 1;
}

void write_escaped(char* place, unsigned char c) {
    const auto digits = hex_digits_of(c, LOWER_HEX_DIGITS);
    switch (escaped_size(c)) {
    case 1:
        place[0] = static_cast<char>(c);
        break;
    case 2:
        place[0] = '\\';
        place[1] = c == '\n' ? 'n' : c == '\r' ? 'r' : 't';
        break;
    default:
        place[0] = '\\';
        place[1] = 'x';
        place[2] = digits[0];
        place[3] = digits[1];
    }
}

// Escapes the bytes from `start` on in place, from the end, so that a long text is not held twice.
void escape_controls(std::string& record, std::size_t start) {
    std::size_t from = record.size();
    std::size_t grown = from;
    for (std::size_t i = start; i < from; ++i)
        grown += escaped_size(static_cast<unsigned char>(record[i])) - 1;
    // With room for the line's end, which would else move the whole record once more.
    record.reserve(grown + 1);
    record.resize(grown);
    for (std::size_t to = grown; from < to;) {
        const auto c = static_cast<unsigned char>(record[--from]);
        to -= escaped_size(c);
        write_escaped(record.data() + to, c);
    }
}

// Renders the format at the end of `record`. A text that cannot be rendered, for its length or a bad
// character, leaves the bare format.
void append_rendered(std::string& record, const char* format, std::va_list arguments) {
    std::va_list again;
    va_copy(again, arguments); // NOLINT(clang-analyzer-valist.Uninitialized): logmsgf has started it
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0) {
        record += format;
        return;
    }
    const std::size_t start = record.size();
    const std::size_t size = static_cast<std::size_t>(length) + 1;
    record.resize(start + size);
    static_cast<void>(std::vsnprintf(record.data() + start, size, format, arguments));
    record.pop_back();
}

bool ends_within_a_record() {
    char last = '\n';
    return lseek(log_file.get(), -1, SEEK_END) >= 0 && read(log_file.get(), &last, 1) == 1 && last != '\n';
}

// Whether a full disk, or its writer's end, cut the last record. One that another process is still writing
// looks the same, so writers share a lock on the file: whoever gets it alone knows. Nobody waits for it, and
// nobody needs it to write.
bool has_cut_record() {
    return ends_within_a_record() && flock(log_file.get(), LOCK_EX | LOCK_NB) == 0 && ends_within_a_record();
}

// Writes one record, whose text `append_text` puts after its head. A record that cannot be written, or held
// in memory, is lost in silence: the log never stops or disturbs what it records.
template <typename AppendText>
void write_record(int level, const char* function, AppendText append_text) {
    try {
        // The line feed in front is written to close a cut record, and else left out.
        std::string record = '\n' + head_of_record(level, function);
        const std::size_t head = record.size();
        append_text(record);
        escape_controls(record, head);
        record += '\n';
        const std::size_t start = has_cut_record() ? 0 : 1;
        flock(log_file.get(), LOCK_SH | LOCK_NB);
        write_all(log_file.get(), std::string_view(record).substr(start));
        flock(log_file.get(), LOCK_UN);
    } catch (...) { // NOLINT(bugprone-empty-catch): see above
    }
}

} // namespace

void open_debug_log(const char* directory, const char* program, const char* logName, int mode, int* status) {
    close_debug_log();
    *status = EINVAL;
    if (directory == nullptr || program == nullptr || logName == nullptr)
        return;
    const std::string path =
        std::string(directory) + "/" + program + "/" + logName + "." + utc_timestamp().substr(0, 10) + ".log";
    *status = open_log_file(path.c_str(), static_cast<mode_t>(mode));
    if (*status == 0 && recorded_pid == 0)
        log_set_pid();
}

void close_debug_log() {
    log_file.close();
}

void log_set_pid() {
    recorded_pid = getpid();
}

void logmsg(int level, const char* text, const char* function) {
    if (log_file.is_open())
        write_record(level, function, [=](std::string& record) { record += text == nullptr ? "" : text; });
}

void logmsgf(int level, const char* function, const char* format, ...) {
    if (!log_file.is_open())
        return;
    std::va_list arguments;
    va_start(arguments, format);
    write_record(level, function, [&](std::string& record) { append_rendered(record, format, arguments); });
    va_end(arguments);
}
