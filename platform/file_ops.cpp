#include "platform/file_ops.h"

#include "platform/interruption.h"
#include "platform/pending_file.h"
#include "platform/regular_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr mode_t PERMISSION_BITS = S_IRWXU | S_IRWXG | S_IRWXO;
constexpr std::size_t BUFFER_SIZE = std::size_t{256} * 1024;
// The most that one call moves: large enough to cost nothing, small enough for a signal to get through.
constexpr std::size_t KERNEL_COPY_SIZE = std::size_t{1} << 24U;

// Copies from both files' positions to the end of the source.
int copy_through_buffer(int from, int to) {
    std::vector<char> buffer(BUFFER_SIZE);
    while (!interruption_noted()) {
        const ssize_t count = read(from, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return count == 0 ? 0 : errno;
        const int error = write_all(to, {buffer.data(), static_cast<std::size_t>(count)});
        if (error != 0)
            return error;
    }
    return EINTR;
}

// Moves both files on by what the kernel is able to copy by itself, which may be nothing.
void copy_inside_kernel(int from, int to) {
    ssize_t copied = 0;
    do {
        copied = copy_file_range(from, nullptr, to, nullptr, KERNEL_COPY_SIZE, 0);
    } while (!interruption_noted() && (copied > 0 || (copied < 0 && errno == EINTR)));
}

int copy_bytes(int from, int to) {
    if (ioctl(to, FICLONE, from) == 0)
        return 0;
    // The kernel's copying fails for many reasons and on some file systems ends early. Whatever it leaves is
    // copied through the buffer, which meets the real end of the source, or the real error.
    copy_inside_kernel(from, to);
    return copy_through_buffer(from, to);
}

} // namespace

int fileCOPY(const char* from, const char* to) {
    if (from == nullptr || to == nullptr)
        return EINVAL;
    FileDescriptor source;
    struct stat status {};
    int error = open_regular_file(from, source, status);
    if (error != 0)
        return error;
    PendingFile destination(to);
    error = destination.open(status.st_mode & PERMISSION_BITS);
    if (error == 0)
        error = copy_bytes(source.get(), destination.descriptor());
    if (error == 0)
        error = destination.commit();
    return error;
}

int flush_file(const char* path) {
    FileDescriptor file;
    struct stat status {};
    const int error = open_regular_file(path, file, status);
    if (error != 0)
        return error;
    return fsync(file.get()) == 0 ? flush_directory_of(path) : errno;
}

int flush_directory_of(const char* path) {
    const FileDescriptor directory(open(directory_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory.is_open() ? flush_directory(directory.get()) : errno;
}

int fileDELETE(const char* path) {
    if (path == nullptr)
        return EINVAL;
    return unlink(path) == 0 ? 0 : errno;
}

std::string base_name(const char* path) {
    std::string name = path == nullptr ? "" : path;
    name.erase(name.find_last_not_of('/') + 1);
    return name.substr(name.rfind('/') + 1);
}

char* qv_basename(const char* path, const char* suffix) {
    std::string name = base_name(path);
    if (name.empty())
        return nullptr;
    const std::string ending = suffix == nullptr ? "" : suffix;
    if (name.size() > ending.size() && name.substr(name.size() - ending.size()) == ending)
        name.erase(name.size() - ending.size());
    return strdup(name.c_str());
}
