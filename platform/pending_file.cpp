#include "platform/pending_file.h"

#include "platform/handle.h"
#include "platform/hex.h"

#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A temporary name ends in ".<16 hex digits>.part".
constexpr std::string_view ENDING = ".part";
constexpr std::size_t DIGITS = 16;
constexpr std::size_t TAIL = 1 + DIGITS + ENDING.size();

// One try is enough, unless others take or lock every name at once.
constexpr int MAX_TRIES = 100;

// The start of 2000, in seconds: older than any file that a writer can have left.
constexpr std::time_t FIRST_TIME = 946684800;

// What the temporary names of a file have before their digits; the name is cut to leave room for the rest.
std::string temporary_head(const std::string& name) {
    return "." + name.substr(0, NAME_MAX - 1 - TAIL);
}

bool is_temporary_name(std::string_view name) {
    if (name.size() < TAIL || name.front() != '.')
        return false;
    name.remove_prefix(name.size() - TAIL);
    return name.front() == '.' && name.find_first_not_of(LOWER_HEX_DIGITS, 1) == 1 + DIGITS &&
           name.substr(1 + DIGITS) == ENDING;
}

bool has_name(int file, int directory, const char* name) {
    struct stat opened = {};
    struct stat named = {};
    return fstat(file, &opened) == 0 && fstatat(directory, name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

} // namespace

std::string directory_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

int flush_directory(int directory) {
    return fsync(directory) == 0 || errno == EINVAL ? 0
                                                    : errno; // EINVAL: this file system does not flush them
}

PendingFile::PendingFile(const std::string& path)
    : directory_path_(directory_of(path)), name_(path.substr(path.rfind('/') + 1)) {}

PendingFile::~PendingFile() {
    remove_temporary();
}

int PendingFile::open(mode_t mode) {
    if (name_.empty() || name_ == "." || name_ == "..")
        return EISDIR;
    directory_ = FileDescriptor(::open(directory_path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory_.is_open())
        return errno;
    remove_left_files();
    file_ = FileDescriptor(openat(directory_.get(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, mode));
    if (file_.is_open()) {
        // Before the file has a name, so that nobody ever sees it unlocked.
        static_cast<void>(lock());
        return 0;
    }
    // EISDIR and EINVAL come from file systems that do not know the flag at all.
    if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)
        return errno;
    return take_temporary_name([this, mode] {
        file_ = FileDescriptor(openat(directory_.get(), temporary_name_.c_str(),
                                      O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
        if (!file_.is_open())
            return errno;
        // Until the lock, another writer of this name may have mistaken the file for one that was left.
        if (lock() && has_name(file_.get(), directory_.get(), temporary_name_.c_str()))
            return 0;
        remove_temporary();
        return EEXIST;
    });
}

int PendingFile::commit() {
    // A file whose final name looks like a temporary one, as an archive's entry may have, is recognised by its
    // time.
    const timespec before_all[2] = {};
    if (is_temporary_name(name_) && futimens(file_.get(), before_all) != 0)
        return errno;
    if (fsync(file_.get()) != 0)
        return errno;
    int error = take_name();
    if (error != 0)
        return error;
    error = flush_directory(directory_.get());
    // Where an earlier file is gone, the new one is whole and better than none.
    if (error != 0 && !replaces_ && has_name(file_.get(), directory_.get(), name_.c_str()))
        unlinkat(directory_.get(), name_.c_str(), 0);
    return error;
}

int PendingFile::take_name() {
    if (temporary_name_.empty()) {
        int error = link_as(name_);
        if (error != EEXIST)
            return error;
        // No call gives a nameless file a name that is taken, so it gets a temporary one first.
        error = take_temporary_name([this] { return link_as(temporary_name_); });
        if (error != 0)
            return error;
    }
    struct stat earlier = {};
    replaces_ = fstatat(directory_.get(), name_.c_str(), &earlier, AT_SYMLINK_NOFOLLOW) == 0;
    if (renameat(directory_.get(), temporary_name_.c_str(), directory_.get(), name_.c_str()) != 0)
        return errno;
    temporary_name_.clear();
    return 0;
}

// Lets `take` try new temporary names while it returns EEXIST. Returns 0 or an errno.
template <typename Take>
int PendingFile::take_temporary_name(const Take& take) {
    int error = EEXIST;
    for (int i = 0; i < MAX_TRIES && error == EEXIST; ++i) {
        std::uint64_t number = 0;
        if (getrandom(&number, sizeof number, 0) != sizeof number)
            return errno;
        char tail[TAIL + 1];
        static_cast<void>(std::snprintf(tail, sizeof tail, ".%016" PRIx64 "%s", number, ENDING.data()));
        temporary_name_ = temporary_head(name_) + tail;
        error = take();
    }
    if (error != 0)
        temporary_name_.clear();
    return error;
}

int PendingFile::link_as(const std::string& name) const {
    // This needs a capability that root in a container may lack; the name below /proc does the same.
    if (linkat(file_.get(), "", directory_.get(), name.c_str(), AT_EMPTY_PATH) == 0)
        return 0;
    if (errno != ENOENT && errno != EPERM)
        return errno;
    const std::string open_file = "/proc/self/fd/" + std::to_string(file_.get());
    return linkat(AT_FDCWD, open_file.c_str(), directory_.get(), name.c_str(), AT_SYMLINK_FOLLOW) == 0
               ? 0
               : errno;
}

// False when another process has locked the file. A file system without locks leaves it unlocked, and no file
// there counts as left.
bool PendingFile::lock() const {
    return flock(file_.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

// Removes what killed writers of this name left.
void PendingFile::remove_left_files() const {
    const std::unique_ptr<DIR, Release<closedir>> directory(opendir(directory_path_.c_str()));
    const std::string head = temporary_head(name_);
    while (const dirent* entry = directory ? readdir(directory.get()) : nullptr) {
        const std::string_view name = entry->d_name;
        if (is_temporary_name(name) && name.substr(0, name.size() - TAIL) == head)
            remove_if_left(entry->d_name);
    }
}

void PendingFile::remove_if_left(const char* temporary_name) const {
    const FileDescriptor file(
        openat(directory_.get(), temporary_name, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
    struct stat status = {};
    // A shared lock, as a network's file system may want a file open for writing for the other kind.
    if (file.is_open() && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) &&
        status.st_uid == geteuid() && status.st_nlink == 1 && status.st_mtime >= FIRST_TIME &&
        flock(file.get(), LOCK_SH | LOCK_NB) == 0 && has_name(file.get(), directory_.get(), temporary_name))
        unlinkat(directory_.get(), temporary_name, 0);
}

void PendingFile::remove_temporary() {
    if (!temporary_name_.empty() && has_name(file_.get(), directory_.get(), temporary_name_.c_str()))
        unlinkat(directory_.get(), temporary_name_.c_str(), 0);
    temporary_name_.clear();
}
