#include "publisher/source_file.h"

#include "platform/file_descriptor.h"
#include "platform/file_ops.h"
#include "platform/regular_file.h"
#include "publisher/refusal.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr std::uint64_t CHUNK_SIZE = 256UL * 1024UL;

std::string name_of(const std::string& path) {
    const std::unique_ptr<char, decltype(&std::free)> name(qv_basename(path.c_str(), nullptr), &std::free);
    return name ? name.get() : "";
}

bool is_same_time(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool is_unchanged(const struct stat& before, const struct stat& now) {
    return before.st_dev == now.st_dev && before.st_ino == now.st_ino && before.st_size == now.st_size &&
           is_same_time(before.st_mtim, now.st_mtim) && is_same_time(before.st_ctim, now.st_ctim);
}

Refusal changed(const SourceFile& source) {
    return Refusal(source.path + " changed while it was being read");
}

std::size_t read_some(const SourceFile& source, const FileDescriptor& file, char* buffer, std::size_t count) {
    ssize_t result = 0;
    do {
        result = read(file.get(), buffer, count);
    } while (result < 0 && errno == EINTR);
    if (result < 0)
        throw Refusal("cannot read " + source.path, errno);
    return static_cast<std::size_t>(result);
}

} // namespace

FileDescriptor open_source(const std::string& path, struct stat& status, const std::string& name) {
    FileDescriptor file;
    const int error = open_regular_file(path.c_str(), file, status);
    const std::string& shown = name.empty() ? path : name;
    if (error == EISDIR)
        throw Refusal(shown + " is a folder");
    if (error == EINVAL)
        throw Refusal(shown + " is not a regular file");
    if (error != 0)
        throw Refusal("cannot read " + shown, error);
    return file;
}

FileStream open_stream(const std::string& path, struct stat& status, const std::string& name) {
    const FileDescriptor file = open_source(path, status, name);
    FileStream stream(fdopen(fcntl(file.get(), F_DUPFD_CLOEXEC, 0), "rb"));
    if (!stream)
        throw Refusal("cannot read " + path, errno);
    return stream;
}

SourceFile examine_source(const std::string& path) {
    SourceFile source = {path, name_of(path), {}};
    open_source(path, source.status);
    return source;
}

bool is_same_file(const std::string& a, const std::string& b) {
    std::error_code error;
    if (std::filesystem::equivalent(a, b, error))
        return true;
    // Neither is there yet: the same name in the same folder.
    const std::filesystem::path first = a;
    const std::filesystem::path second = b;
    return !std::filesystem::exists(first, error) && !std::filesystem::exists(second, error) &&
           first.filename() == second.filename() &&
           std::filesystem::equivalent("." / first.parent_path(), "." / second.parent_path(), error);
}

void read_source(const SourceFile& source, std::uint64_t from,
                 const std::function<void(const char* bytes, std::size_t count)>& take) {
    struct stat status = {};
    const FileDescriptor file = open_source(source.path, status);
    if (!is_unchanged(source.status, status))
        throw changed(source);
    if (lseek(file.get(), static_cast<off_t>(from), SEEK_SET) < 0)
        throw Refusal("cannot read " + source.path, errno);
    std::vector<char> buffer(CHUNK_SIZE);
    for (std::uint64_t left = source.size() - from; left > 0;) {
        const std::size_t count = read_some(source, file, buffer.data(), std::min(left, CHUNK_SIZE));
        if (count == 0)
            throw changed(source);
        take(buffer.data(), count);
        left -= count;
    }
    // A file that grew has more to read; one that was written to in place has another time. Nobody can set
    // the time of its last change of any kind.
    if (read_some(source, file, buffer.data(), 1) != 0 || fstat(file.get(), &status) != 0 ||
        !is_unchanged(source.status, status))
        throw changed(source);
}
