#include "publisher/output_file.h"

#include "publisher/refusal.h"

#include <cerrno>
#include <filesystem>

#include <fcntl.h>
#include <unistd.h>

namespace {

bool is_taken_by_another_kind(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

} // namespace

OutputFile::OutputFile(const std::string& path, mode_t mode) : path_(path), file_(path) {
    // A new name would replace a device as readily as a file.
    if (is_taken_by_another_kind(path))
        throw Refusal(path + " is not a regular file");
    if (const int error = file_->open(mode); error != 0)
        throw Refusal("cannot write " + path, error);
}

void OutputFile::check(bool success) const {
    if (!success)
        throw Refusal("cannot write " + path_, errno);
}

void OutputFile::write(const char* bytes, std::size_t count) {
    while (count > 0) {
        const ssize_t written = ::write(file_->descriptor(), bytes, count);
        if (written < 0 && errno == EINTR)
            continue;
        check(written >= 0);
        bytes += written;
        count -= static_cast<std::size_t>(written);
    }
}

void OutputFile::write_at(std::uint64_t offset, const char* bytes, std::size_t count) {
    while (count > 0) {
        const ssize_t written = pwrite(file_->descriptor(), bytes, count, static_cast<off_t>(offset));
        if (written < 0 && errno == EINTR)
            continue;
        check(written >= 0);
        bytes += written;
        offset += static_cast<std::uint64_t>(written);
        count -= static_cast<std::size_t>(written);
    }
}

void OutputFile::take_over(const struct stat& status) {
    // The owner first, as changing it clears set-id bits. Only root may give a file away; for others it stays
    // theirs.
    check(fchown(file_->descriptor(), status.st_uid, status.st_gid) == 0 || errno == EPERM);
    check(fchmod(file_->descriptor(), status.st_mode & 07777U) == 0);
}

void OutputFile::commit() {
    check(fstat(file_->descriptor(), &status_) == 0);
    const int error = file_->commit();
    file_.reset();
    if (error != 0)
        throw Refusal("cannot write " + path_, error);
}

void OutputFile::commit_new() {
    check(fstat(file_->descriptor(), &status_) == 0 && fsync(file_->descriptor()) == 0);
    const std::string open_file = "/proc/self/fd/" + std::to_string(file_->descriptor());
    if (linkat(AT_FDCWD, open_file.c_str(), AT_FDCWD, path_.c_str(), AT_SYMLINK_FOLLOW) != 0) {
        const int error = errno;
        struct stat earlier = {};
        if (lstat(path_.c_str(), &earlier) == 0)
            throw Refusal(path_ + " is there already; --force replaces it");
        // Some file systems have no links. Two writers that look at the same moment both see a free name
        // there.
        if (error != EPERM && error != EOPNOTSUPP)
            throw Refusal("cannot write " + path_, error);
        return commit();
    }
    file_.reset();
    const std::filesystem::path folder = "." / std::filesystem::path(path_).parent_path();
    const FileDescriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    check(opened.is_open() && (fsync(opened.get()) == 0 || errno == EINVAL));
}

void OutputFile::remove() {
    if (is_in_place())
        unlink(path_.c_str());
}

bool OutputFile::is_in_place() const {
    struct stat named = {};
    return lstat(path_.c_str(), &named) == 0 && named.st_dev == status_.st_dev &&
           named.st_ino == status_.st_ino;
}
