// An open file of the operating system, closed by its owner's destructor.

#ifndef PLATFORM_FILE_DESCRIPTOR_H
#define PLATFORM_FILE_DESCRIPTOR_H

#include <cerrno>
#include <string_view>
#include <unistd.h>
#include <utility>

class FileDescriptor {
  public:
    // Adopts `descriptor`, as open(2) returned it; negative for none.
    explicit FileDescriptor(int descriptor = -1) : descriptor_(descriptor) {}

    FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) {
            close();
            descriptor_ = std::exchange(other.descriptor_, -1);
        }
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { close(); }

    int get() const { return descriptor_; }
    bool is_open() const { return descriptor_ >= 0; }

    // Closes the file now. Returns 0 or an errno, so that a writer learns of a late failure; the file is closed
    // in either case. Without a file, does nothing and returns 0.
    int close() {
        if (descriptor_ < 0)
            return 0;
        return ::close(std::exchange(descriptor_, -1)) == 0 || errno == EINTR ? 0 : errno;
    }

  private:
    int descriptor_;
};

// Writes all `bytes` to the open file `descriptor`, in as many calls as that takes: the system writes at most
// 2 GiB at once. Returns 0 or an errno.
inline int write_all(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(descriptor, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return errno;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return 0;
}

#endif
