// Creates archives and signs them.

#ifndef PUBLISHER_ARCHIVE_WRITER_H
#define PUBLISHER_ARCHIVE_WRITER_H

#include "publisher/archive.h"
#include "publisher/signature.h"

#include <iosfwd>
#include <string>
#include <vector>

// What precedes the file's bytes in an archive: name length, size, mode and name.
std::string entry_header(const SourceFile& source);

// Creates the archive `output` from the files at `paths`, in that order, each under the last component of its
// path and with its permission bits; signed unless `signature` is null. Draws a progress bar on `terminal`
// unless that is null. The archive appears whole or not at all, in place of an earlier one.
//
// Throws a UserError, before anything is written, for a file that is not a regular one, a name of more than 255
// bytes, a name that comes twice, and for an output that is one of the files; later on, for a file that changes
// while it is being read, and when the archive cannot be written.
ArchiveSummary create_archive(const std::string& output, const std::vector<std::string>& paths,
                              const SignatureSource& signature, std::ostream* terminal);

// Puts the signature in front of the archive at `path`, in place of the one that it has already. The archive
// keeps its permission bits, and its owner where this process may set it; it is replaced whole or not at all,
// and a symbolic link to it stays one. Throws like examine_signable, `signature` and create_archive.
ArchiveSummary sign_archive(const std::string& path, const SignatureSource& signature,
                            std::ostream* terminal);

#endif
