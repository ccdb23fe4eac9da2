#include "publisher/source_file.h"

#include "publisher/user_error.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <vector>

namespace {

constexpr std::uint64_t CHUNK_SIZE = 256UL * 1024UL;

bool is_same_time(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// Whoever writes to a file can put its modification time back, but not its change time.
bool is_unchanged(const struct stat& before, const struct stat& now) {
    return before.st_dev == now.st_dev && before.st_ino == now.st_ino && before.st_size == now.st_size &&
           is_same_time(before.st_mtim, now.st_mtim) && is_same_time(before.st_ctim, now.st_ctim);
}

} // namespace

FileStream open_stream(const std::string& path, struct stat& status, const std::string& name) {
    const std::string& shown = name.empty() ? path : name;
    FileStream stream(open_to_read(path.c_str()));
    const int error = !stream || fstat(fileno(stream.get()), &status) != 0 ? errno : 0;
    if (error != 0 && error != EINVAL) // EINVAL: a pipe
        throw UserError("cannot read " + shown, error);
    if (error == 0 && S_ISDIR(status.st_mode))
        throw UserError(shown + " is a directory");
    if (error != 0 || !S_ISREG(status.st_mode))
        throw UserError(shown + " is not a regular file");
    return stream;
}

SourceFile examine_source(const std::string& path) {
    SourceFile source = {path, base_name(path), {}};
    open_stream(path, source.status);
    return source;
}

void read_source(const SourceFile& source, std::uint64_t from,
                 const std::function<void(const char* bytes, std::size_t count)>& consume) {
    struct stat status = {};
    const FileStream file = open_stream(source.path, status);
    bool is_changed = !is_unchanged(source.status, status) || !seek_to(file.get(), from);
    std::vector<char> buffer(CHUNK_SIZE);
    for (std::uint64_t left = source.size() - from; left > 0 && !is_changed;) {
        const std::size_t count = std::fread(buffer.data(), 1, std::min(left, CHUNK_SIZE), file.get());
        if (std::ferror(file.get()) != 0)
            throw UserError("cannot read " + source.path, errno);
        consume(buffer.data(), count);
        left -= count;
        is_changed = count == 0;
    }
    // A file that grew has more to read; one that was written to in place has other times.
    if (is_changed || std::fgetc(file.get()) != EOF || fstat(fileno(file.get()), &status) != 0 ||
        !is_unchanged(source.status, status))
        throw UserError(source.path + " changed while it was being read");
}

bool is_same_file(const std::string& a, const std::string& b) {
    std::error_code error;
    if (std::filesystem::equivalent(a, b, error))
        return true;
    // Neither exists: the same name in the same directory.
    const std::filesystem::path first = a;
    const std::filesystem::path second = b;
    return first.has_filename() && !std::filesystem::exists(first, error) &&
           !std::filesystem::exists(second, error) && first.filename() == second.filename() &&
           std::filesystem::equivalent("." / first.parent_path(), "." / second.parent_path(), error);
}

std::string base_name(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}
