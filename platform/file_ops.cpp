#include "platform/file_ops.h"

#include "platform/interruption.h"
#include "platform/pending_file.h"
#include "platform/regular_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr mode_t PERMISSION_BITS = S_IRWXU | S_IRWXG | S_IRWXO;
constexpr std::size_t BUFFER_SIZE = std::size_t{256} * 1024;
// The most that one call moves: large enough to cost nothing, small enough for a signal to get through.
constexpr std::size_t KERNEL_COPY_SIZE = std::size_t{1} << 24U;

int write_all(int file, const char* bytes, std::size_t count) {
    while (count > 0) {
        const ssize_t written = write(file, bytes, count);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return errno;
        bytes += written;
        count -= static_cast<std::size_t>(written);
    }
    return 0;
}

// Copies from where both files stand to the end of the source.
int copy_through_buffer(int from, int to) {
    std::vector<char> buffer(BUFFER_SIZE);
    while (!interruption_noted()) {
        const ssize_t count = read(from, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return count == 0 ? 0 : errno;
        const int error = write_all(to, buffer.data(), static_cast<std::size_t>(count));
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

// The last component of `path` without slashes behind it; empty when there is none.
std::string_view last_component(std::string_view path) {
    const std::size_t end = path.find_last_not_of('/');
    if (end == std::string_view::npos)
        return {};
    path = path.substr(0, end + 1);
    return path.substr(path.rfind('/') + 1);
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

char* qv_basename(const char* path, const char* suffix) {
    if (path == nullptr)
        return nullptr;
    std::string_view name = last_component(path);
    if (name.empty())
        return nullptr;
    const std::string_view ending = suffix == nullptr ? "" : suffix;
    if (name.size() > ending.size() && name.substr(name.size() - ending.size()) == ending)
        name.remove_suffix(ending.size());
    return strndup(name.data(), name.size());
}
