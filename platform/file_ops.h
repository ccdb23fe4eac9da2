// The platform's file copy, file delete and base name.

#ifndef PLATFORM_FILE_OPS_H
#define PLATFORM_FILE_OPS_H

#include <string>

// Copies the regular file `from` to the path `to`. Returns 0 or an errno.
// The destination appears whole or not at all: the bytes are written to a nameless file (a temporary one,
// where the file system has no nameless files) in the destination's directory, flushed to disk, and take the
// name last; the directory is flushed after. A file that has the name already keeps it until then; a symbolic
// link of that name is replaced, not followed. The copy's mode is the source's permission bits without the
// set-id bits, less the process's mask. A failure leaves nothing, except that a copy that has replaced an
// earlier file stays when the directory cannot be flushed. A kill may leave a hidden temporary file,
// which the next copy to that name removes (platform/pending_file.h).
int fileCOPY(const char* from, const char* to);

// Flushes the regular file `path` and the directory that holds its name to the disk. Returns 0 or an errno.
int flush_file(const char* path);

// Flushes the directory that holds the name `path`. Returns 0 or an errno.
int flush_directory_of(const char* path);

// Removes the file `path`. Returns 0 or an errno (EINVAL for a null path).
int fileDELETE(const char* path);

// The last component of `path`; slashes at its end do not count. Empty for a null or empty path and for a path
// of slashes alone.
std::string base_name(const char* path);

// The same, allocated with malloc for the caller to free(), or null for an empty one. A `suffix` that is not null
// is left out where the component ends with it and is longer.
char* qv_basename(const char* path, const char* suffix);

#endif
