// The files that sjapack reads.

#ifndef PUBLISHER_SOURCE_FILE_H
#define PUBLISHER_SOURCE_FILE_H

#include "files/file_stream.h"

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

// Examines the file at `path`. Throws a UserError for a directory, for anything else that is not a regular file
// (without waiting for a pipe), and for a file that cannot be read.
SourceFile examine_source(const std::string& path);

// Passes the bytes from offset `from` up to the end of the file to `consume`, in chunks. Throws a UserError
// when the file cannot be read, or is not, from the first byte to the last, the one that was examined: another
// file of that name, shorter, longer or written to.
void read_source(const SourceFile& source, std::uint64_t from,
                 const std::function<void(const char* bytes, std::size_t count)>& consume);

// Opens the regular file at `path` and fills `status`. Throws like examine_source, and calls the file `name`
// unless that is empty.
FileStream open_stream(const std::string& path, struct stat& status, const std::string& name = "");

// Whether both paths lead to the same file, or would once it is created.
bool is_same_file(const std::string& a, const std::string& b);

// The last component of a path that leads to a file.
std::string base_name(const std::string& path);

#endif
