// The repository's file operations: copy, extraction, listing, deletion, confirmation.
//
// They call one another, the archive reader and the platform's file calls through T, so that each can be
// exercised with its neighbours replaced. Results are statuses (0 is success) unless a function says
// otherwise; everything is logged under the operation's full name, and nothing is printed.

#ifndef FILES_QVREPOHELPER_H
#define FILES_QVREPOHELPER_H

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

struct QvRepoPackageItem;
struct stat_array;

namespace QvRepoHelper {

// Whether both paths name the same file (device and inode); false when either cannot be examined.
bool sameFile(const std::string& a, const std::string& b);

// The size of the file in bytes; 0 when it cannot be examined.
std::uint64_t fileSize(const char* path);

// Whether the path is not null and exists.
bool pathExists(const char* path);

// Whether the file name ends in ".sja", in any letter case.
bool isSjaExtension(std::string name);

// Whether every entry of the listing is a package file by its name, so that the archive is an envelope; an
// empty listing is one too. Empty slots are skipped. Logs every entry and the verdict.
bool isSjaEnvelope(const stat_array* listing);

// Writes `prompt` as it is, flushes, and reads one line. 1 for a line that begins with y or Y, else 0.
int confirmAction(const std::string& prompt, std::ostream& out, std::istream& in);

// Deletes every path, going on after a failure. 1 when all were deleted, else 0.
int deletePackageItems(std::vector<std::string> paths);

// Verifies the package file `source` and copies it into the repository as `name` (a prefix) + its base name.
// `destination` receives the path of the copy once it is known, and is left alone before. Returns 0, 7214 (no
// space, or the copy failed), 7217 (no repository) or the code of verifySja; no half copy is left.
int copySja(const char* source, std::string& destination, std::string name);

// Verifies the package file `source` and copies it into the repository under its base name. Returns as above.
int copySja(const char* source);

// Extracts the envelope `source` into the repository, by way of a temporary copy there that is gone
// afterwards. Returns 0, 7252 (extraction failed; files extracted before stay) or the code of copySja. While
// another process extracts a temporary copy of that name, that copy is left alone (7252).
int extractSja(const char* source);

// Checks the signature of the package file `path` against the package-signing public key. Returns 0, 7225 (no
// such file), 7235 (cannot be opened), 7236 (signature not valid) or 7237 (no key).
int verifySja(const char* path);

// Appends what the package file `path` holds to `items`: an envelope's entries, last entry of the archive
// first, or the file itself. Returns 0, 7215 (not a readable archive) or 7225 (no such file).
int readSjaContents(const char* path, std::vector<QvRepoPackageItem>& items);

// Free space of the volume that holds `path`; see files/DiskSpace.h.
int getFreeSpace(const char* path, float* percentFree, unsigned long* megabytesFree);

} // namespace QvRepoHelper

#endif
