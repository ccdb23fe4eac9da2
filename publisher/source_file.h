// The files that an archive is made of.

#ifndef PUBLISHER_SOURCE_FILE_H
#define PUBLISHER_SOURCE_FILE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include <sys/stat.h>

// A regular file as it was when it was examined.
struct SourceFile {
    std::string path;
    std::string name; // the last component of the path
    struct stat status;

    std::uint64_t size() const { return static_cast<std::uint64_t>(status.st_size); }
    unsigned mode() const { return status.st_mode & 07777U; }
};

// Examines the file at `path`. Throws a Refusal for a folder, for anything else that is no regular file, and
// for a file that cannot be read.
SourceFile examine_source(const std::string& path);

// Whether `path` leads to the file that was examined.
bool is_same_file(const SourceFile& source, const std::string& path);

// Passes the bytes from offset `from` up to the end of the file to `take`, in chunks. Throws a Refusal when
// the file cannot be read, or is not, from the first byte to the last, the one that was examined: another
// file of that name, shorter, longer or written to.
void read_source(const SourceFile& source, std::uint64_t from,
                 const std::function<void(const char* bytes, std::size_t count)>& take);

#endif
