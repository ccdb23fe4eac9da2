// The files that sjapack writes.

#ifndef PUBLISHER_OUTPUT_FILE_H
#define PUBLISHER_OUTPUT_FILE_H

#include "platform/pending_file.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <sys/stat.h>

// A file that appears whole or not at all, in place of an earlier regular file or symbolic link of its name.
// Every failure is a Refusal that names the file, after which nothing of it is left; only when the folder
// cannot be flushed, a file that has replaced an earlier one stays, so that the name never loses both.
class OutputFile {
  public:
    // Makes the file for `path` with `mode` less the process's mask. Refuses a name that a folder, a device
    // or the like has.
    OutputFile(const std::string& path, mode_t mode);

    void write(const char* bytes, std::size_t count);

    // Writes over bytes that were written before.
    void write_at(std::uint64_t offset, const char* bytes, std::size_t count);

    // Gives the file the permission bits of `status`, and its owner where this process may.
    void take_over(const struct stat& status);

    // Brings the file to the disk and under its name.
    void commit();

    // The same for a name that is still free: where another file has it, or takes it meanwhile, that file
    // stays.
    void commit_new();

    // After a commit: takes the name away again, from this file only.
    void remove();

    // After a commit, even one that failed: whether the file has its name.
    bool is_in_place() const;

  private:
    void check(bool success) const;

    std::string path_;
    std::optional<PendingFile> file_; // until it is committed
    struct stat status_ = {};         // from then on
};

#endif
