// Opens and reads regular files, and nothing else that may have a file's name.

#ifndef PLATFORM_REGULAR_FILE_H
#define PLATFORM_REGULAR_FILE_H

#include "platform/file_descriptor.h"

#include <cstddef>
#include <string>
#include <sys/stat.h>

// Opens the regular file `path` for reading into `file` and fills `status`. Returns 0 or an errno: EISDIR for
// a directory, EINVAL for anything else that is not a regular file. A pipe of that name does not block.
int open_regular_file(const char* path, FileDescriptor& file, struct stat& status);

// Fills `bytes` with the regular file `path`. Returns 0 or an errno, EFBIG for a file of more than `limit`
// bytes. After a failure `bytes` is empty.
int read_regular_file(const char* path, std::size_t limit, std::string& bytes);

#endif
