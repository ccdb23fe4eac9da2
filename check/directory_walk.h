// The repository directory as it is at one moment. Nothing in it is opened but regular files, for reading.

#ifndef CHECK_DIRECTORY_WALK_H
#define CHECK_DIRECTORY_WALK_H

#include "platform/file_descriptor.h"

#include <map>
#include <string>

#include <sys/stat.h>

struct Directory {
    FileDescriptor descriptor;
    struct stat status = {};
    std::map<std::string, struct stat> entries; // by name, symbolic links not followed
};

// Reads the names and what they stand for. Throws CannotCheck where the directory cannot be read.
Directory walk_directory(const char* path);

// Opens the regular file `name` for reading. Returns 0 or an errno, EINVAL for what is not a regular file;
// that is never opened, so neither a pipe nor a device notices.
int open_entry(const Directory& directory, const std::string& name, FileDescriptor& file,
               struct stat& status);

// Whether a process holds the file locked, as writers of temporary files do. The kernel's list of locks is asked:
// a lock of our own, for a moment, could make a writer fail that comes just then.
bool has_writer(const struct stat& file);

#endif
