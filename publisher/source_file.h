// The files that an archive is made of.

#ifndef PUBLISHER_SOURCE_FILE_H
#define PUBLISHER_SOURCE_FILE_H

#include "files/file_stream.h"
#include "platform/file_descriptor.h"

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

// Opens the regular file at `path` for reading and fills `status`. Throws a Refusal, which calls the file by
// `name` or else by its path, for a folder, for anything else that is no regular file (a pipe does not
// block), and for a file that cannot be read.
FileDescriptor open_source(const std::string& path, struct stat& status, const std::string& name = "");

// The same as a stream.
FileStream open_stream(const std::string& path, struct stat& status, const std::string& name = "");

// Examines the file at `path`. Throws like open_source.
SourceFile examine_source(const std::string& path);

// Whether both paths lead to the same file, or would once it is made there.
bool is_same_file(const std::string& a, const std::string& b);

// Passes the bytes from offset `from` up to the end of the file to `take`, in chunks. Throws a Refusal when
// the file cannot be read, or is not, from the first byte to the last, the one that was examined: another
// file of that name, shorter, longer or written to.
void read_source(const SourceFile& source, std::uint64_t from,
                 const std::function<void(const char* bytes, std::size_t count)>& take);

#endif
