// The files that sjapack writes.

#ifndef PUBLISHER_OUTPUT_FILE_H
#define PUBLISHER_OUTPUT_FILE_H

#include "platform/pending_file.h"

#include <cstddef>
#include <cstdint>
#include <string>

#include <sys/stat.h>

// A file that appears whole or not at all, in place of an earlier regular file or symbolic link of its name.
// Every failure is a UserError that names the file, after which nothing of it is left; only when the directory
// cannot be flushed, a file that has replaced an earlier one stays, so that the name never loses both.
class OutputFile {
  public:
    // Creates the file for `path` with `mode` less the process's mask. Refuses the name of a directory, a device
    // or the like.
    OutputFile(const std::string& path, mode_t mode);

    void write(const char* bytes, std::size_t count);

    // Overwrites bytes that were written before.
    void write_at(std::uint64_t offset, const char* bytes, std::size_t count);

    // Gives the file the permission bits of `status`, and its owner where this process may.
    void copy_attributes(const struct stat& status);

    // Flushes the file to disk and gives it its name.
    void commit();

    // The same for a name that is still free: where another file has it, or takes it meanwhile, that file stays.
    void commit_new();

    // Removes the file after a commit, unless another one has its name.
    void remove() const;

    // Whether the file has its name, even after a commit that failed.
    bool is_in_place() const;

  private:
    void check(bool success) const;

    std::string path_;
    PendingFile file_;
};

#endif
