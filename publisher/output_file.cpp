#include "publisher/output_file.h"

#include "publisher/user_error.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

OutputFile::OutputFile(const std::string& path, mode_t mode) : path_(path), file_(path) {
    struct stat earlier = {};
    // A new name would replace a device as readily as a file.
    if (stat(path.c_str(), &earlier) == 0 && !S_ISREG(earlier.st_mode))
        throw UserError(path + " is not a regular file");
    if (const int error = file_.open(mode); error != 0)
        throw UserError("cannot write " + path, error);
}

void OutputFile::check(bool success) const {
    if (!success)
        throw UserError("cannot write " + path_, errno);
}

void OutputFile::write(const char* bytes, std::size_t count) {
    while (count > 0) {
        const ssize_t written = ::write(file_.descriptor(), bytes, count);
        check(written >= 0 || errno == EINTR);
        if (written < 0)
            continue;
        bytes += written;
        count -= static_cast<std::size_t>(written);
    }
}

void OutputFile::write_at(std::uint64_t offset, const char* bytes, std::size_t count) {
    check(pwrite(file_.descriptor(), bytes, count, static_cast<off_t>(offset)) ==
          static_cast<ssize_t>(count));
}

void OutputFile::copy_attributes(const struct stat& status) {
    // The owner first, as changing it clears set-id bits. Only root may give a file away; for others it stays
    // theirs.
    check(fchown(file_.descriptor(), status.st_uid, status.st_gid) == 0 || errno == EPERM);
    check(fchmod(file_.descriptor(), status.st_mode & 07777U) == 0);
}

void OutputFile::commit() {
    if (const int error = file_.commit(); error != 0)
        throw UserError("cannot write " + path_, error);
}

void OutputFile::commit_new() {
    check(fsync(file_.descriptor()) == 0);
    const std::string open_file = "/proc/self/fd/" + std::to_string(file_.descriptor());
    if (linkat(AT_FDCWD, open_file.c_str(), AT_FDCWD, path_.c_str(), AT_SYMLINK_FOLLOW) != 0) {
        const int error = errno;
        struct stat earlier = {};
        if (lstat(path_.c_str(), &earlier) == 0)
            throw UserError(path_ + " exists already; --force replaces it");
        // Some file systems have no links. Two writers that look at the same moment both see a free name there.
        if (error != EPERM && error != EOPNOTSUPP)
            throw UserError("cannot write " + path_, error);
        return commit();
    }
    const FileDescriptor directory(open(directory_of(path_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    check(directory.is_open());
    errno = flush_directory(directory.get());
    check(errno == 0);
}

void OutputFile::remove() const {
    if (is_in_place())
        unlink(path_.c_str());
}

bool OutputFile::is_in_place() const {
    struct stat written = {};
    struct stat named = {};
    return fstat(file_.descriptor(), &written) == 0 && lstat(path_.c_str(), &named) == 0 &&
           written.st_dev == named.st_dev && written.st_ino == named.st_ino;
}
