#include "check/directory_walk.h"

#include "check/text.h"
#include "platform/handle.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/sysmacros.h>

namespace {

constexpr Message NO_DIRECTORY = {"TqlChk0024N", "the directory %s cannot be read: %s"};

} // namespace

Directory walk_directory(const char* path) {
    Directory directory;
    const auto check = [path](bool success) {
        if (!success)
            throw CannotCheck({&NO_DIRECTORY, {path, std::strerror(errno)}});
    };
    const std::unique_ptr<DIR, Release<closedir>> stream(opendir(path));
    check(stream != nullptr);
    directory.descriptor = FileDescriptor(fcntl(dirfd(stream.get()), F_DUPFD_CLOEXEC, 0));
    check(directory.descriptor.is_open() && fstat(directory.descriptor.get(), &directory.status) == 0);
    while (const dirent* entry = (errno = 0, readdir(stream.get()))) {
        const std::string name = entry->d_name;
        struct stat status = {};
        if (name == "." || name == "..")
            continue;
        if (fstatat(directory.descriptor.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
            directory.entries.emplace(name, status);
        else
            check(errno == ENOENT); // gone meanwhile
    }
    check(errno == 0);
    return directory;
}

int open_entry(const Directory& directory, const std::string& name, FileDescriptor& file,
               struct stat& status) {
    const FileDescriptor place(
        openat(directory.descriptor.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!place.is_open() || fstat(place.get(), &status) != 0)
        return errno;
    if (!S_ISREG(status.st_mode))
        return EINVAL;
    const std::string opened = "/proc/self/fd/" + std::to_string(place.get());
    file = FileDescriptor(open(opened.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    return file.is_open() ? 0 : errno;
}

bool has_writer(const struct stat& file) {
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
        unsigned first = 0;
        unsigned second = 0;
        unsigned long inode = 0;
        // NOLINTNEXTLINE(cert-err34-c): the kernel's own numbers
        if (std::sscanf(line.c_str(), "%*d: FLOCK %*s WRITE %*d %x:%x:%lu", &first, &second, &inode) != 3 ||
            inode != file.st_ino)
            continue;
        // Some file systems without a device of their own show stat(2) another number than they show here.
        if (major(file.st_dev) == 0 || (first == major(file.st_dev) && second == minor(file.st_dev)))
            return true;
    }
    return false;
}
