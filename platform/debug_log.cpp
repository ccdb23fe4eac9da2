#include "platform/debug_log.h"

#include <spdlog/sinks/basic_file_sink.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <string>
#include <system_error>
#include <unistd.h>

namespace {

using Clock = std::chrono::system_clock;

// The sink hands each message to its formatter as it came. What spdlog's own message has no field for, the
// platform's level numbers and a text that is still to be rendered, therefore travels in a message of our
// own.
struct Record : spdlog::details::log_msg {
    Record(int level_number, const char* function, const char* text_or_format, std::va_list* format_arguments)
        : log_msg(function == nullptr ? "" : function, spdlog::level::info, ""), number(level_number),
          text(text_or_format == nullptr ? "" : text_or_format), arguments(format_arguments) {}

    int number;
    const char* text;
    std::va_list* arguments; // null for a fixed text
};

pid_t recorded_pid = 0;

std::string utc(Clock::time_point time, const char* format) {
    const std::time_t seconds = Clock::to_time_t(time);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[40];
    return {text, std::strftime(text, sizeof text, format, &parts)};
}

std::string milliseconds(Clock::time_point time) {
    const auto all = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
    const std::string digits = std::to_string(all % 1000);
    return std::string(3 - digits.size(), '0') + digits;
}

std::size_t escaped_size(unsigned char c) {
    if (c == '\n' || c == '\r' || c == '\t')
        return 2;
    return c < 0x20 || c == 0x7f ? 4 : 1;
}

void write_escaped(char* place, unsigned char c) {
    static constexpr char digits[] = "0123456789abcdef";
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
        place[2] = digits[c >> 4U];
        place[3] = digits[c & 0xfU];
    }
}

// Escapes the bytes from `start` on in place, from the end, so that a long text is not held twice.
void escape_controls(spdlog::memory_buf_t& record, std::size_t start) {
    std::size_t from = record.size();
    std::size_t grown = from;
    for (std::size_t i = start; i < from; ++i)
        grown += escaped_size(static_cast<unsigned char>(record.data()[i])) - 1;
    // With room for the line's end, which would else move the whole record once more.
    record.reserve(grown + 1);
    record.resize(grown);
    for (std::size_t to = grown; from < to;) {
        const auto c = static_cast<unsigned char>(record.data()[--from]);
        to -= escaped_size(c);
        write_escaped(record.data() + to, c);
    }
}

// Renders the format at the end of `record`. A text that cannot be rendered, for its length or a bad
// character, leaves the bare format.
void append_rendered(spdlog::memory_buf_t& record, const char* format, std::va_list* arguments) {
    std::va_list again;
    va_copy(again, *arguments); // NOLINT(clang-analyzer-valist.Uninitialized): logmsgf has started it
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0) {
        record.append(format, format + std::strlen(format));
        return;
    }
    const std::size_t start = record.size();
    const std::size_t size = static_cast<std::size_t>(length) + 1;
    record.resize(start + size);
    va_copy(again, *arguments);
    static_cast<void>(std::vsnprintf(record.data() + start, size, format, again));
    va_end(again);
    record.resize(start + size - 1);
}

class RecordFormatter : public spdlog::formatter {
  public:
    void format(const spdlog::details::log_msg& message, spdlog::memory_buf_t& destination) override {
        const auto& record = static_cast<const Record&>(message);
        const std::string function(record.logger_name.data(), record.logger_name.size());
        const std::string head = utc(record.time, "%Y-%m-%dT%H:%M:%S.") + milliseconds(record.time) + "Z [" +
                                 std::to_string(recorded_pid) + "] <" + std::to_string(record.number) + "> " +
                                 function + ": ";
        destination.append(head.data(), head.data() + head.size());
        if (record.arguments == nullptr)
            destination.append(record.text, record.text + std::strlen(record.text));
        else
            append_rendered(destination, record.text, record.arguments);
        escape_controls(destination, head.size());
        destination.push_back('\n');
    }

    std::unique_ptr<spdlog::formatter> clone() const override { return std::make_unique<RecordFormatter>(); }
};

// Makes the file with the mode asked for, which spdlog's own opening cannot, or throws the reason why there
// is none: that also keeps spdlog from making a folder that is missing.
void make_log_file(const std::string& path, int mode) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, static_cast<mode_t>(mode));
    if (file < 0)
        throw std::system_error(errno, std::generic_category());
    close(file);
}

spdlog::file_event_handlers log_file_events(int mode) {
    spdlog::file_event_handlers events;
    events.before_open = [mode](const std::string& path) { make_log_file(path, mode); };
    // Unbuffered, each record is one write to a stream in append mode: it is in the file when the call
    // returns, and records of other processes stand before or after it, never inside.
    events.after_open = [](const std::string&, std::FILE* stream) {
        static_cast<void>(std::setvbuf(stream, nullptr, _IONBF, 0));
    };
    return events;
}

std::unique_ptr<spdlog::sinks::sink> log_file;

std::unique_ptr<spdlog::sinks::sink> open_log_file(const std::string& path, int mode) {
    auto sink = std::make_unique<spdlog::sinks::basic_file_sink_mt>(path, false, log_file_events(mode));
    sink->set_formatter(std::make_unique<RecordFormatter>());
    return sink;
}

// A record that cannot be written is lost in silence: the log never stops or disturbs what it tells about.
void write_record(const Record& record) {
    try {
        log_file->log(record);
    } catch (...) { // NOLINT(bugprone-empty-catch): see above
    }
}

} // namespace

void open_debug_log(const char* directory, const char* program, const char* logName, int mode, int* status) {
    close_debug_log();
    *status = EINVAL;
    if (directory == nullptr || program == nullptr || logName == nullptr)
        return;
    try {
        const std::string day = utc(Clock::now(), "%Y-%m-%d");
        log_file =
            open_log_file(std::string(directory) + "/" + program + "/" + logName + "." + day + ".log", mode);
        if (recorded_pid == 0)
            log_set_pid();
        *status = 0;
    } catch (const std::system_error& failure) {
        *status = failure.code().value();
    } catch (...) {
        *status = EIO;
    }
}

void close_debug_log() {
    log_file.reset();
}

void log_set_pid() {
    recorded_pid = getpid();
}

void logmsg(int level, const char* text, const char* function) {
    if (log_file != nullptr)
        write_record(Record(level, function, text, nullptr));
}

void logmsgf(int level, const char* function, const char* format, ...) {
    if (log_file == nullptr)
        return;
    std::va_list arguments;
    va_start(arguments, format);
    write_record(Record(level, function, format, &arguments));
    va_end(arguments);
}
