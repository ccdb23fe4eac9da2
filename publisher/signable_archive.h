// Archives that can bear a signature.

#ifndef PUBLISHER_SIGNABLE_ARCHIVE_H
#define PUBLISHER_SIGNABLE_ARCHIVE_H

#include "publisher/archive_table.h"
#include "publisher/source_file.h"

#include <cstdint>
#include <string>

// An archive that is whole and has an entry, as it was when it was examined.
struct SignableArchive {
    SourceFile source;     // behind all symbolic links
    std::uint64_t content; // where the bytes begin that are signed: behind an earlier signature
    ArchiveSummary summary;

    std::uint64_t content_size() const { return source.size() - content; }
};

// Examines the archive at `path`. Throws a Refusal for what cannot be read, is no archive, is damaged or
// holds no entry.
SignableArchive examine_signable(const std::string& path);

#endif
