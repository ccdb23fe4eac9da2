// A file on its way into a directory: it takes its name when it is complete, or is never seen.

#ifndef PLATFORM_PENDING_FILE_H
#define PLATFORM_PENDING_FILE_H

#include "platform/file_descriptor.h"

#include <string>
#include <sys/types.h>

// The bytes go to a nameless file, which vanishes with the process that writes it. Where the file system has
// none, and for the moment in which an earlier file is replaced, the file has a temporary name in the same
// directory, ".NAME.<16 random hex digits>.part", that nobody else has. It is hidden and ends in ".part", so
// nobody takes it for the file itself. The writer holds a lock (flock) on its own file, never on anything
// else, and waits for none: only a kill leaves a temporary name with a file that nobody has locked, and the
// next pending file for NAME removes it. What no writer of this user can have left stays: a file that is
// locked, belongs to another user or has a second name, and everything that is not a regular file.
class PendingFile {
  public:
    // For the file `path`; touches nothing yet.
    explicit PendingFile(const std::string& path);

    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    // Removes the file unless commit() has succeeded.
    ~PendingFile();

    // Makes the file with `mode` less the process's mask. Returns 0 or an errno: the directory's, when it cannot
    // be opened, or EISDIR for a path that ends in a slash, "." or "..".
    int open(mode_t mode);

    // The file to write to; valid after a successful open().
    int descriptor() const { return file_.get(); }

    // Flushes the file to disk, gives it its name in place of whatever file or symbolic link has it, and
    // flushes the directory. Returns 0 or an errno; nothing of the file is left after a failure, and an earlier
    // file keeps the name. The exception: where flushing the directory fails after an earlier file was replaced,
    // the new one, whole, stays in its place, so that the name never loses both.
    int commit();

  private:
    template <typename Take>
    int take_temporary_name(const Take& take);
    int take_name();
    int link_as(const std::string& name) const;
    bool lock() const;
    void remove_left_files() const;
    void remove_if_left(const char* temporary_name) const;
    void remove_temporary();

    std::string directory_path_;
    std::string name_;
    std::string temporary_name_; // empty while the file has none
    FileDescriptor directory_;
    FileDescriptor file_;
    bool replaces_ = false; // whether another file had the name
};

// The directory of the file `path`; "." for a path without one.
std::string directory_of(const std::string& path);

// Flushes an open directory. Returns 0, also where the file system does not flush directories, or an errno.
int flush_directory(int directory);

#endif
