#include "platform/regular_file.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

// Reads to the end of the file or until `bytes` is full, and cuts `bytes` to what was read. Returns 0 or an
// errno.
int read_to_end(int file, std::string& bytes) {
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const ssize_t count = read(file, bytes.data() + filled, bytes.size() - filled);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return errno;
        if (count == 0)
            break;
        filled += static_cast<std::size_t>(count);
    }
    bytes.resize(filled);
    return 0;
}

} // namespace

int open_regular_file(const char* path, FileDescriptor& file, struct stat& status) {
    // Without O_NONBLOCK a pipe of that name would hold the program until somebody writes to it.
    file = FileDescriptor(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!file.is_open() || fstat(file.get(), &status) != 0)
        return errno;
    if (!S_ISREG(status.st_mode))
        return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return 0;
}

int read_regular_file(const char* path, std::size_t limit, std::string& bytes) {
    bytes.clear();
    FileDescriptor file;
    struct stat status {};
    int error = open_regular_file(path, file, status);
    if (error == 0 && static_cast<std::size_t>(status.st_size) > limit)
        error = EFBIG;
    if (error != 0)
        return error;
    bytes.resize(static_cast<std::size_t>(status.st_size));
    error = read_to_end(file.get(), bytes);
    if (error != 0)
        bytes.clear();
    return error;
}
