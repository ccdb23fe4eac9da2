// What an archive holds, complete and in file order.

#ifndef PUBLISHER_ARCHIVE_TABLE_H
#define PUBLISHER_ARCHIVE_TABLE_H

#include "files/file_stream.h"

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

struct ArchiveEntry {
    std::string name;
    std::uint64_t size; // bytes
    unsigned mode;      // as stored
};

// What is known of an archive once its entries have gone by.
struct ArchiveSummary {
    bool is_signed = false; // whether there is a signature block, valid or not
    std::uint64_t entry_count = 0;
    bool is_envelope = false;               // whether there are entries and all their names end in ".sja"
    std::uint64_t unfit_name_count = 0;     // of an envelope's entries with names that are no package's
    std::vector<std::string> name_warnings; // about the first of them
    std::string damage;                     // what is wrong with the archive's structure; empty for nothing

    void add(const ArchiveEntry& entry);

    // "2 entries, signed, envelope".
    std::string text() const;

    // One line for each reason for which a repository will not take the archive at `path`, or not as it is
    // meant: a name that is no package's, its own or an envelope's entry's, and more entries than it lists.
    std::vector<std::string> warnings(const std::string& path) const;
};

// An archive whose entries are read one by one and never kept, so that any number of them takes the same
// memory.
class Archive {
  public:
    // Opens the archive at `path`. Throws a Refusal for a file that cannot be read, is not a regular one or
    // not an archive.
    explicit Archive(const std::string& path);

    // Passes every entry to `visit`, in file order. A damaged archive gives the entries that are there.
    ArchiveSummary walk(const std::function<void(const ArchiveEntry&)>& visit) const;

    // Writes a line per entry (mode, size, name) under a heading, and a summary, which is returned. Names are
    // printable.
    ArchiveSummary print(std::ostream& out) const;

    bool is_signed() const { return is_signed_; }

  private:
    std::string path_;
    FileStream file_;
    std::uint64_t size_ = 0;
    bool is_signed_ = false;
};

// `text` as a terminal may show it: control characters, and bytes that are not UTF-8 and that a terminal
// could take for such, stand as escapes ("\x1b").
std::string printable(const std::string& text);

#endif
