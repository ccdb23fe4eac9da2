// The signature check of an archive, as a master server makes it.

#ifndef PUBLISHER_ARCHIVE_CHECK_H
#define PUBLISHER_ARCHIVE_CHECK_H

#include <iosfwd>
#include <string>

// Throws a Refusal unless the archive at `path` is signed and its signature fits the public key in the file
// or at the URI `key_name`. Draws a progress bar on `terminal` unless that is null.
void verify_archive(const std::string& path, const std::string& key_name, std::ostream* terminal);

#endif
