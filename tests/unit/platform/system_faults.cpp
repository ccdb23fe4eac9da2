#include "tests/unit/platform/system_faults.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/fs.h>
#include <netdb.h>
#include <sys/file.h>
#include <sys/types.h>
#include <unistd.h>

bool SystemFaults::fails(const std::string& call) {
    ++counts_[call];
    if (const auto signal = signals_.extract(call))
        static_cast<void>(raise(signal.mapped()));
    const auto found = faults_.find(call);
    if (found == faults_.end())
        return false;
    Fault& fault = found->second;
    if (fault.passed > 0) {
        --fault.passed;
        return false;
    }
    if (fault.times == 0)
        return false;
    if (fault.times > 0)
        --fault.times;
    if (fault.error == KILL)
        static_cast<void>(raise(SIGKILL));
    if (fault.stops)
        static_cast<void>(raise(SIGSTOP));
    errno = fault.error;
    return fault.error != 0;
}

SystemFaults& faults() {
    static SystemFaults all;
    return all;
}

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's --wrap gives these
// names
extern "C" {

ssize_t __real_copy_file_range(int, off64_t*, int, off64_t*, size_t, unsigned);
int __real_flock(int, int);
int __real_fsync(int);
int __real_getaddrinfo(const char*, const char*, const addrinfo*, addrinfo**);
uid_t __real_geteuid();
int __real_gethostname(char*, size_t);
int __real_getifaddrs(ifaddrs**);
int __real_ioctl(int, unsigned long, ...);
int __real_linkat(int, const char*, int, const char*, int);
int __real_openat64(int, const char*, int, ...);
ssize_t __real_read(int, void*, size_t);
int __real_renameat(int, const char*, int, const char*);
ssize_t __real_write(int, const void*, size_t);

// Stands in for a file system that shares blocks.
static int copy_whole(int from, int to) {
    std::array<char, 65536> bytes{};
    for (;;) {
        const ssize_t count = __real_read(from, bytes.data(), bytes.size());
        if (count <= 0)
            return static_cast<int>(count);
        if (__real_write(to, bytes.data(), static_cast<size_t>(count)) != count)
            return -1;
    }
}

ssize_t __wrap_copy_file_range(int from, off64_t* from_offset, int to, off64_t* to_offset, size_t size,
                               unsigned flags) {
    if (faults().fails("copy_file_range"))
        return -1;
    if (!faults().copy_limit)
        return __real_copy_file_range(from, from_offset, to, to_offset, size, flags);
    size = std::min(size, *faults().copy_limit);
    *faults().copy_limit -= size;
    return size == 0 ? 0 : __real_copy_file_range(from, from_offset, to, to_offset, size, flags);
}

int __wrap_flock(int file, int operation) {
    return faults().fails("flock") ? -1 : __real_flock(file, operation);
}

int __wrap_fsync(int file) {
    return faults().fails("fsync") ? -1 : __real_fsync(file);
}

int __wrap_getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** found) {
    return faults().fails("getaddrinfo") ? EAI_FAIL : __real_getaddrinfo(node, service, hints, found);
}

uid_t __wrap_geteuid() {
    return faults().effective_user.value_or(__real_geteuid());
}

int __wrap_gethostname(char* name, size_t size) {
    return faults().fails("gethostname") ? -1 : __real_gethostname(name, size);
}

int __wrap_getifaddrs(ifaddrs** first) {
    return faults().fails("getifaddrs") ? -1 : __real_getifaddrs(first);
}

int __wrap_ioctl(int file, unsigned long request, ...) {
    std::va_list arguments;
    va_start(arguments, request);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    if (faults().fails("ioctl"))
        return -1;
    if (faults().shares_blocks && request == FICLONE)
        return copy_whole(static_cast<int>(argument), file);
    return __real_ioctl(file, request, argument);
}

int __wrap_linkat(int from_directory, const char* from, int to_directory, const char* to, int flags) {
    return faults().fails("linkat") ? -1 : __real_linkat(from_directory, from, to_directory, to, flags);
}

int __wrap_openat64(int directory, const char* path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const auto mode = va_arg(arguments, mode_t);
    va_end(arguments);
    if (faults().fails("openat"))
        return -1;
    if ((flags & faults().unknown_open_flags) != 0) {
        errno = faults().unknown_open_flags_error;
        return -1;
    }
    return __real_openat64(directory, path, flags, mode);
}

ssize_t __wrap_read(int file, void* bytes, size_t size) {
    if (faults().fails("read"))
        return -1;
    if (!faults().read_limit)
        return __real_read(file, bytes, size);
    size = std::min(size, *faults().read_limit);
    *faults().read_limit -= size;
    return size == 0 ? 0 : __real_read(file, bytes, size);
}

int __wrap_renameat(int from_directory, const char* from, int to_directory, const char* to) {
    return faults().fails("renameat") ? -1 : __real_renameat(from_directory, from, to_directory, to);
}

ssize_t __wrap_write(int file, const void* bytes, size_t size) {
    return faults().fails("write") ? -1 : __real_write(file, bytes, size);
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
