// A file on its way into a folder: it takes its name when it is complete, or is never seen.

#ifndef PLATFORM_PENDING_FILE_H
#define PLATFORM_PENDING_FILE_H

#include "platform/file_descriptor.h"

#include <string>
#include <sys/types.h>

// The bytes go to a nameless file, which vanishes with the process that writes it. Where the file system has
// none, and for the moment in which an earlier file is replaced, the file bears the temporary name
// ".NAME.part" in the same folder. Only a kill leaves that name behind, and the next pending file for NAME
// removes it; it is hidden and ends in ".part", so nobody takes it for the file itself. While the temporary
// name may be in use the folder is locked (flock), so that two writers of one name do not take it from each
// other.
class PendingFile {
  public:
    // What else is put into the folder: files whose names nobody mistakes for the temporary one, or files of
    // any name.
    enum class Neighbours { known, any };

    // For the file `path`; touches nothing yet. Among `any` neighbours a file that bears the temporary name
    // is removed only when the name is needed.
    explicit PendingFile(const std::string& path, Neighbours neighbours = Neighbours::known);

    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    // Removes the file unless commit() has succeeded.
    ~PendingFile();

    // Makes the file with `mode` less the process's mask. Returns 0 or an errno: the folder's, when it cannot
    // be opened, or EISDIR for a path that ends in a slash, "." or "..".
    int open(mode_t mode);

    // The file to write to; valid after a successful open().
    int descriptor() const { return file_.get(); }

    // Flushes the file to disk, gives it its name in place of whatever file or symbolic link has it, and
    // flushes the folder. Returns 0 or an errno; nothing of the file is left after a failure, and an earlier
    // file keeps the name. The exception: where flushing the folder fails after an earlier file was replaced,
    // the new one, whole, stays in its place, so that the name never loses both.
    int commit();

  private:
    int open_temporary(mode_t mode);
    int take_name();
    int link_as(const std::string& name) const;
    void free_temporary_name() const;
    void remove_temporary();

    std::string folder_path_;
    std::string name_;
    std::string temporary_name_;
    Neighbours neighbours_;
    FileDescriptor folder_;
    FileDescriptor file_;
    bool has_temporary_name_ = false;
    bool replaces_ = false; // whether another file had the name
};

#endif
