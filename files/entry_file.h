// The file that an archive entry is written to.

#ifndef FILES_ENTRY_FILE_H
#define FILES_ENTRY_FILE_H

#include "files/file_stream.h"
#include "platform/file_descriptor.h"
#include "platform/pending_file.h"

#include <cstdio>
#include <optional>
#include <string>

#include <sys/types.h>

// Behaves like a stream opened with "wb", symbolic links followed, but a regular file takes its name only
// when it is complete: until put_in_place() succeeds, an earlier file of that name stays as it is, and
// afterwards nothing of an unfinished one is left. Anything else that has the name already, a device or a
// pipe, is written to as it is.
class EntryFile {
  public:
    EntryFile() = default;

    // Opens the file `path` for the bytes of an entry of `archive`. False, with nothing changed, when opening
    // it for writing would fail, and when it is the archive itself.
    bool open(const std::string& path, FILE* archive);

    // The stream to write to, after a successful open() and up to finish_writing().
    FILE* stream() const { return stream_->get(); }

    // Writes out what is buffered and closes the stream. False when that fails.
    bool finish_writing() { return stream_->close(); }

    // Sets the permission, set-id and sticky bits. Whether that succeeded.
    bool set_mode(mode_t mode) const;

    // Flushes the file to disk and gives it its name. Whether that succeeded.
    bool put_in_place();

  private:
    int descriptor() const { return pending_ ? pending_->descriptor() : special_.get(); }

    FileDescriptor special_;
    std::optional<PendingFile> pending_;
    std::optional<BufferedStream> stream_;
};

#endif
