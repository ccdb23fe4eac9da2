// Reads .sja archives.

#ifndef PUBLISHER_ARCHIVE_H
#define PUBLISHER_ARCHIVE_H

#include "files/extractsja.h"
#include "publisher/source_file.h"

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
    std::vector<std::string> name_warnings; // about an envelope's entries, the first 1000 at most
    std::string damage;                     // what is wrong with the archive's structure; empty for nothing

    void add(const ArchiveEntry& entry);

    // "2 entries, signed, envelope".
    std::string text() const;

    // One line for each reason why a repository will not accept the archive at `path`, or not as it is meant: a
    // name that no package has, its own or that of an envelope's entry, and more entries than it lists.
    std::vector<std::string> warnings(const std::string& path) const;
};

// An archive whose entries are read one by one and never kept, so that any number of them takes the same
// memory.
class Archive {
  public:
    // Opens the archive at `path`. Throws a UserError for a file that cannot be read, is not a regular one or
    // not an archive.
    explicit Archive(const std::string& path);

    bool is_signed() const { return is_signed_; }

    // Passes every entry to `visit`, in file order. A damaged archive gives the entries that are there.
    ArchiveSummary walk(const std::function<void(const ArchiveEntry&)>& visit) const;

    // Writes a line per entry (mode, size, name) under a heading, and the summary, which is returned.
    ArchiveSummary print(std::ostream& out) const;

  private:
    std::string path_;
    FileStream file_;
    std::uint64_t size_ = 0;
    bool is_signed_ = false;
};

// An archive that can bear a signature, as it was when it was examined.
struct SignableArchive {
    SourceFile source;     // with all symbolic links resolved
    std::uint64_t content; // where the signed bytes begin: after an earlier signature
    ArchiveSummary summary;

    std::uint64_t content_size() const { return source.size() - content; }
};

// Examines the archive at `path`. Throws like Archive, and for an archive that is damaged or has no entry.
SignableArchive examine_signable(const std::string& path);

// Why `name` is not a name for a package file; empty when it is one.
std::string package_name_fault(const std::string& name);

// `text` as a terminal may show it: control characters, and bytes that are not UTF-8 and that a terminal could
// take for such, appear as escapes ("\x1b").
std::string printable(const std::string& text);

#endif
