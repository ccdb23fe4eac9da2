// Opens the real debug log in a directory of its own and reads back what was written.

#ifndef TESTS_SUPPORT_LOG_CAPTURE_H
#define TESTS_SUPPORT_LOG_CAPTURE_H

#include "platform/debug_log.h"
#include "tests/support/temporary_directory.h"

#include <filesystem>
#include <ostream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

struct LogRecord {
    int level;
    std::string function;
    std::string text;

    bool operator==(const LogRecord& other) const {
        return level == other.level && function == other.function && text == other.text;
    }
};

inline std::ostream& operator<<(std::ostream& out, const LogRecord& record) {
    return out << "<" << record.level << "> " << record.function << ": " << record.text;
}

class LogCapture {
  public:
    LogCapture() {
        std::filesystem::create_directory(directory_.path("qvrepo"));
        int status = 0;
        open_debug_log(directory_.path().c_str(), "qvrepo", "qvrepo", 0666, &status);
        if (status != 0)
            throw std::runtime_error("the test's log cannot be opened");
        log_set_pid();
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture() { close_debug_log(); }

    // Every record so far, in order. A line that is not a record has level -1 and the line as its text.
    std::vector<LogRecord> records() const {
        static const std::regex form(
            R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z \[\d+\] <(\d+)> ([A-Za-z_0-9:]+): ([^\n]*))");
        std::vector<LogRecord> all;
        for (const auto& entry : std::filesystem::directory_iterator(directory_.path("qvrepo"))) {
            std::istringstream lines(read_file(entry.path().string()));
            for (std::string line; std::getline(lines, line);) {
                std::smatch match;
                if (std::regex_match(line, match, form))
                    all.push_back({std::stoi(match[1]), match[2], match[3]});
                else
                    all.push_back({-1, "", line});
            }
        }
        return all;
    }

  private:
    TemporaryDirectory directory_;
};

#endif
