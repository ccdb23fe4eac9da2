#include "platform/pending_file.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string folder_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string temporary_name_of(const std::string& name) {
    static const std::string ending = ".part";
    return "." + name.substr(0, NAME_MAX - 1 - ending.size()) + ending;
}

} // namespace

PendingFile::PendingFile(const std::string& path, Neighbours neighbours)
    : folder_path_(folder_of(path)), name_(path.substr(path.rfind('/') + 1)),
      temporary_name_(temporary_name_of(name_)), neighbours_(neighbours) {}

PendingFile::~PendingFile() {
    remove_temporary();
}

int PendingFile::open(mode_t mode) {
    if (name_.empty() || name_ == "." || name_ == "..")
        return EISDIR;
    folder_ = FileDescriptor(::open(folder_path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder_.is_open())
        return errno;
    file_ = FileDescriptor(openat(folder_.get(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, mode));
    if (file_.is_open())
        return 0;
    // EISDIR and EINVAL are how file systems answer that do not know the flag at all.
    if (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL)
        return open_temporary(mode);
    return errno;
}

int PendingFile::open_temporary(mode_t mode) {
    free_temporary_name();
    file_ = FileDescriptor(openat(folder_.get(), temporary_name_.c_str(),
                                  O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    has_temporary_name_ = file_.is_open();
    return has_temporary_name_ ? 0 : errno;
}

int PendingFile::commit() {
    if (fsync(file_.get()) != 0)
        return errno;
    const int error = take_name();
    if (error != 0)
        return error;
    if (fsync(folder_.get()) == 0 || errno == EINVAL) // EINVAL: this file system does not flush folders
        return 0;
    const int flush_error = errno;
    // Where an earlier file is gone, the new one is whole and better than none.
    if (!replaces_)
        unlinkat(folder_.get(), name_.c_str(), 0);
    return flush_error;
}

int PendingFile::take_name() {
    if (!has_temporary_name_) {
        if (neighbours_ == Neighbours::known)
            free_temporary_name();
        int error = link_as(name_);
        if (error != EEXIST)
            return error;
        // No call gives a nameless file a name that is taken, so it takes the temporary one first.
        free_temporary_name();
        error = link_as(temporary_name_);
        if (error != 0)
            return error;
        has_temporary_name_ = true;
    }
    struct stat earlier = {};
    replaces_ = fstatat(folder_.get(), name_.c_str(), &earlier, AT_SYMLINK_NOFOLLOW) == 0;
    if (renameat(folder_.get(), temporary_name_.c_str(), folder_.get(), name_.c_str()) != 0)
        return errno;
    has_temporary_name_ = false;
    return 0;
}

int PendingFile::link_as(const std::string& name) const {
    // Needs a capability that root in a container may lack; then the name below /proc does the same.
    if (linkat(file_.get(), "", folder_.get(), name.c_str(), AT_EMPTY_PATH) == 0)
        return 0;
    if (errno != ENOENT && errno != EPERM)
        return errno;
    const std::string open_file = "/proc/self/fd/" + std::to_string(file_.get());
    return linkat(AT_FDCWD, open_file.c_str(), folder_.get(), name.c_str(), AT_SYMLINK_FOLLOW) == 0 ? 0
                                                                                                    : errno;
}

// Removes what a killed writer left, and keeps the name from others until this file is done. A file system
// without locks leaves two writers of one name unprotected from each other.
void PendingFile::free_temporary_name() const {
    while (flock(folder_.get(), LOCK_EX) != 0 && errno == EINTR) {
    }
    unlinkat(folder_.get(), temporary_name_.c_str(), 0);
}

void PendingFile::remove_temporary() {
    if (has_temporary_name_)
        unlinkat(folder_.get(), temporary_name_.c_str(), 0);
    has_temporary_name_ = false;
}
