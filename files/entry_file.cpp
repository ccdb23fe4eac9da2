#include "files/entry_file.h"

#include <cerrno>
#include <filesystem>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// As many links as the kernel follows in one path.
constexpr int MAX_LINKS = 40;

// The path that the symbolic links at `path` lead to, whether there is a file or not.
std::string resolve_links(const std::string& path) {
    std::filesystem::path place = path;
    for (int i = 0; i < MAX_LINKS; ++i) {
        std::error_code no_link;
        const std::filesystem::path target = std::filesystem::read_symlink(place, no_link);
        if (no_link)
            break;
        place = place.parent_path() / target;
    }
    return place.string();
}

FILE* stream_for(int descriptor) {
    // The stream closes a descriptor of its own: the original is still needed for flushing and placing the
    // file.
    const int own = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    FILE* stream = own >= 0 ? fdopen(own, "wb") : nullptr;
    if (stream == nullptr && own >= 0)
        ::close(own);
    return stream;
}

} // namespace

bool EntryFile::open(const std::string& path, FILE* archive) {
    // Opening what is there already meets every reason for which "wb" fails, a directory of that name among
    // them. A pipe that nobody reads is one more: the program does not wait for a reader.
    FileDescriptor existing(::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK));
    if (!existing.is_open() && errno != ENOENT)
        return false;
    struct stat file = {};
    if (existing.is_open() && (fstat(existing.get(), &file) != 0 || is_file_of(archive, file)))
        return false;
    if (existing.is_open() && !S_ISREG(file.st_mode)) {
        // From here on a write waits for a slow reader.
        if (fcntl(existing.get(), F_SETFL, 0) != 0)
            return false;
        special_ = std::move(existing);
    } else {
        pending_.emplace(resolve_links(path));
        if (pending_->open(0666) != 0)
            return false;
    }
    stream_.emplace(stream_for(descriptor()));
    return static_cast<bool>(*stream_);
}

bool EntryFile::set_mode(mode_t mode) const {
    return fchmod(descriptor(), mode) == 0;
}

bool EntryFile::put_in_place() {
    return !pending_ || pending_->commit() == 0;
}
