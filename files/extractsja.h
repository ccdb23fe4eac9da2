// The reader of .sja archives: recognises them, lists their entries and extracts them.
//
// An archive is the magic "JANK", alone (unsigned form) or after a signature block of 512 bytes (signed
// form), followed by entries back to back up to the end of the file. An entry is its name length (1 byte),
// data size (8), mode (2), name and data; all numbers are little-endian. Extraction works in place, from the
// last entry to the first, and cuts every written entry off the archive: it needs no room for a second copy,
// and consumes the archive.
//
// Streams are read with 64-bit offsets. Nothing here logs or prints. One extraction at a time per process.

#ifndef FILES_EXTRACTSJA_H
#define FILES_EXTRACTSJA_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

// The size of the signature block in bytes.
inline constexpr std::size_t SIGNATURE_SIZE = 512;

// One entry as the walk found it. The list runs from the last entry of the archive to the first.
struct block_info {
    std::uint64_t offset;     // of the entry's first byte in the file
    std::uint32_t index;      // 1-based, in file order
    std::uint8_t name_length; // bytes
    std::uint64_t data_size;  // bytes, as stored
    std::uint16_t mode;       // as stored
    block_info* next;         // the entry before this one in the file; null for the first
};

struct stat_entry {
    char* name; // terminated copy of the stored name
    std::uint16_t mode;
    std::uint64_t size;        // bytes
    std::uint64_t data_offset; // of the entry's data in the file
};

// A listing, last entry of the archive first. From the 16th entry on it has empty (null) slots: growing the
// table carries only its first slots over, and other tools rely on the count that this leaves. Readers skip
// them.
struct stat_array {
    stat_entry** entries;
    std::uint64_t count;
};

// Set when writing out an entry fails, cleared when an extraction starts.
extern unsigned char extractsja_error;

// The form of the archive: 0 unsigned, 1 signed, 2 not an archive. Moves the stream.
int verify_jank_archive(FILE* archive);

// Walks the entries after the magic at `base` (0 or 512). Returns the last entry of the file, or null when
// there is none; free_block_list releases it. Entries are not checked against the file's size: the last one
// may run past it.
block_info* get_blocks(FILE* archive, std::uint64_t base);

// Lists the archive at `path`. Returns a listing for free_stat_array, or null on any failure.
stat_array* stat_archive(const char* path);

// Writes the entry `block` of the archive, open for reading and writing, to `directory`/NAME (NAME alone for
// a null or empty directory), sets its stored mode and cuts the archive at the entry's start. Releases
// `block` and returns its `next`, null at the end of the list.
//
// NAME is used as it is. A symbolic link of that name is followed; an earlier file keeps the name until
// the new one is complete and on the disk, and only then is the archive cut. Fails when the file cannot be
// opened for writing or written, for the archive itself, and for a directory of more than 1024 bytes. On
// failure nothing is left of the entry's file, the archive keeps the entry and is closed, `block` and all
// that follows it are released, and extractsja_error is set.
block_info* extract_block(FILE* archive, block_info* block, const char* directory);

// Extracts the archive at `path` into the existing `directory` and deletes it. 1 on success; 0 on failure,
// with the archive left holding the entries that were not written out. Fails, with nothing changed, while
// another process extracts the archive; a file that takes its name meanwhile is not deleted.
int do_extract(const char* path, const char* directory);

// high * 256 + low.
std::uint16_t little_endian_word(unsigned char low, unsigned char high);

// The number in eight bytes, lowest first.
std::uint64_t little_endian_qword(const unsigned char* bytes);

// The index of the first NUL byte, at most 1024; 0 for null.
std::size_t sja_strnlen(const char* text);

// Release functions; null is allowed.
void free_block_list(block_info* last);
void free_stat_entry(stat_entry* entry);
void free_stat_array(stat_array* listing);

#endif
