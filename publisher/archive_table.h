// What an archive holds, complete and in file order.

#ifndef PUBLISHER_ARCHIVE_TABLE_H
#define PUBLISHER_ARCHIVE_TABLE_H

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

struct ArchiveEntry {
    std::string name;
    std::uint64_t size; // bytes
    unsigned mode;      // as stored
};

struct ArchiveTable {
    bool has_signature = false; // whether there is a signature block, valid or not
    std::vector<ArchiveEntry> entries;
    std::string damage; // what is wrong with the archive's structure; empty for nothing
};

// Whether the names make the archive an envelope: at least one, and all ending in ".sja".
bool is_envelope(const std::vector<ArchiveEntry>& entries);

// Reads the archive at `path`. Throws a Refusal for a file that cannot be read or is no archive. A damaged
// archive gives the entries that are there.
ArchiveTable read_archive_table(const std::string& path);

// Writes a line per entry (mode, size, name) under a heading, and a summary. Control characters in names
// stand as escapes.
void print_archive_table(const ArchiveTable& table, std::ostream& out);

// "2 entries, signed, envelope".
std::string summary_of(bool has_signature, const std::vector<ArchiveEntry>& entries);

#endif
