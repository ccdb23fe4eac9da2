#include "master/access_log.h"

#include "master/json_text.h"
#include "master/log_error.h"
#include "platform/utc_time.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>

namespace {

constexpr std::size_t MAX_LOGGED_BODY = 64UL * 1024;

void append_member(std::string& line, const char* name, std::string_view text) {
    line += ", \"";
    line += name;
    line += "\": ";
    append_json_string(line, text);
}

std::string line_of(const ServiceRequest& request, int status) {
    std::string line = "{\"time\": \"" + utc_timestamp() + "\"";
    append_member(line, "method", request.method);
    append_member(line, "target", request.target);
    append_member(line, "accept", request.accept);
    append_member(line, "contentType", request.contentType);
    append_member(line, "body", std::string_view(request.body).substr(0, MAX_LOGGED_BODY));
    return line + ", \"status\": " + std::to_string(status) + "}\n";
}

FileDescriptor open_log(const std::string& path) {
    return FileDescriptor(open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640));
}

std::string cannot_open(const std::string& path) {
    return "cannot open the access log " + path + ": " + std::strerror(errno);
}

} // namespace

AccessLog::AccessLog(std::string file) : path_(std::move(file)), file_(open_log(path_)) {
    if (!path_.empty() && !file_.is_open())
        throw StartFailure(cannot_open(path_));
}

void AccessLog::reopen() noexcept {
    if (path_.empty())
        return;
    FileDescriptor file = open_log(path_);
    if (!file.is_open())
        return log_error(cannot_open(path_) + "; going on in the file that was open");
    const std::lock_guard<std::mutex> lock(mutex_);
    file_ = std::move(file);
}

void AccessLog::write(const ServiceRequest& request, int status) noexcept {
    if (path_.empty())
        return;
    try {
        const std::string line = line_of(request, status);
        const std::lock_guard<std::mutex> lock(mutex_);
        if (const int error = write_all(file_.get(), line))
            log_error(std::string("cannot write the access log: ") + std::strerror(error));
    } catch (const std::exception& error) {
        log_error(std::string("cannot write the access log: ") + error.what());
    }
}
