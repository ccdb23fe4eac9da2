// Makes archives and signs them.

#ifndef PUBLISHER_ARCHIVE_WRITER_H
#define PUBLISHER_ARCHIVE_WRITER_H

#include "publisher/archive_table.h"
#include "publisher/signature_source.h"
#include "publisher/source_file.h"

#include <iosfwd>
#include <string>
#include <vector>

#include <openssl/types.h>

// What stands in front of the file's bytes in an archive: name length, size, mode and name.
std::string entry_header(const SourceFile& source);

// Makes the archive `output` of the files at `paths`, in that order, each under the last component of its
// path and with its permission bits; signed with `key` unless that is null. Draws a progress bar on
// `terminal` unless that is null. Returns the summary. The archive appears whole or not at all, in place of
// an earlier one.
//
// Throws a Refusal, before anything is written, for a file that is no regular one, a name of more than 255
// bytes, a name that comes twice, and for an output that is one of the files; later on, for a file that
// changes while it is being read, and when the archive cannot be written.
ArchiveSummary create_archive(const std::string& output, const std::vector<std::string>& paths, EVP_PKEY* key,
                              std::ostream* terminal);

// Puts the signature that `signature` gives in front of the archive at `path`, in place of the one that it
// has already. Returns the summary. The archive keeps its permission bits, and its owner where this process
// may set it; it is replaced whole or not at all, behind a symbolic link too. Throws a Refusal for what is no
// archive, holds no entry or is damaged, when there is no signature, and like create_archive.
ArchiveSummary sign_archive(const std::string& path, SignatureSource& signature, std::ostream* terminal);

#endif
