#include "files/extractsja.h"

#include "files/block_list.h"
#include "files/file_stream.h"
#include "files/sja_log.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

namespace {

constexpr char MAGIC[4] = {'J', 'A', 'N', 'K'};
// Nearer to the largest offset, a stream that fills its buffer meets an error instead of the end of the file,
// and remembers it.
constexpr std::uint64_t MAX_OFFSET = std::numeric_limits<off_t>::max() - STREAM_BUFFER_SIZE;
constexpr std::size_t FIRST_CAPACITY = 16;
constexpr std::size_t SLOT_SIZE = sizeof(void*);

using EntryPtr = std::unique_ptr<stat_entry, Release<free_stat_entry>>;
using ListingPtr = std::unique_ptr<stat_array, Release<free_stat_array>>;

bool read_whole(FILE* stream, void* buffer, std::size_t length) {
    return std::fread(buffer, 1, length, stream) == length && std::ferror(stream) == 0;
}

std::uint64_t saturating_sum(std::uint64_t a, std::uint64_t b) {
    const std::uint64_t largest = std::numeric_limits<std::uint64_t>::max();
    return b > largest - a ? largest : a + b;
}

// Reads the header at the stream's position and returns how many of its bytes the file holds.
std::size_t read_header(FILE* archive, block_info& block) {
    unsigned char header[ENTRY_HEADER_SIZE] = {};
    const std::size_t length = std::fread(header, 1, sizeof header, archive);
    block.name_length = header[0];
    block.data_size = little_endian_qword(header + 1);
    block.mode = little_endian_word(header[9], header[10]);
    return length;
}

// What a walk found: the last entry, and whether a failure to seek or read ended it, not the end of the file.
struct Walk {
    BlockList last;
    bool failed = false;
};

Walk walk_blocks(FILE* archive, std::uint64_t base) {
    Walk found;
    BlockList& last = found.last;
    std::uint64_t offset = base + sizeof MAGIC;
    // Ends where the file does. A size that leads past the largest offset counts as one that runs past the
    // end, as wrapping around would read the same entries for ever.
    while (offset <= MAX_OFFSET) {
        if (!seek_to(archive, offset)) {
            found.failed = errno != EINVAL; // EINVAL: no file can be that long on this file system
            break;
        }
        BlockList block(new block_info());
        block->offset = offset;
        block->index = last ? last->index + 1 : 1;
        const std::size_t length = read_header(archive, *block);
        // A file that ends inside the two mode bytes still holds the entry; the bytes that are missing count
        // as 0.
        if (length < ENTRY_HEADER_SIZE - 2)
            break;
        offset = saturating_sum(offset + length + block->name_length, block->data_size);
        block->next = last.release();
        last = std::move(block);
    }
    found.failed = found.failed || std::ferror(archive) != 0;
    return found;
}

// The listed entry of `block`; null when its name cannot be read whole.
EntryPtr read_entry(FILE* archive, const block_info& block) {
    EntryPtr entry(new stat_entry());
    const std::uint64_t name_offset = block.offset + ENTRY_HEADER_SIZE;
    entry->data_offset = name_offset + block.name_length;
    entry->name = new char[block.name_length + 1U]();
    if (!seek_to(archive, name_offset) || !read_whole(archive, entry->name, block.name_length)) {
        log_msg("Error: Bad archive\n");
        return nullptr;
    }
    entry->mode = block.mode;
    entry->size = block.data_size;
    return entry;
}

ListingPtr new_listing() {
    ListingPtr listing(new stat_array());
    listing->entries = new stat_entry*[FIRST_CAPACITY]();
    return listing;
}

// Doubles the table. Of its `capacity` slots only those in its first `capacity` BYTES keep their entries: the
// rest of the program, and other tools, rely on what a long listing has looked like ever since.
void grow(stat_array& listing, std::size_t capacity) {
    const std::size_t kept = capacity / SLOT_SIZE;
    auto** larger = new stat_entry* [2 * capacity] {};
    std::copy_n(listing.entries, kept, larger);
    for (std::size_t i = kept; i < capacity; ++i)
        free_stat_entry(listing.entries[i]);
    delete[] listing.entries;
    listing.entries = larger;
}

ListingPtr list_blocks(FILE* archive, const block_info* last) {
    ListingPtr listing = new_listing();
    std::size_t capacity = FIRST_CAPACITY;
    for (const block_info* block = last; block != nullptr; block = block->next) {
        EntryPtr entry = read_entry(archive, *block);
        if (!entry)
            return nullptr;
        const stat_entry& listed = *entry;
        listing->entries[listing->count++] = entry.release();
        log_msg("    [%s] | %llu BYTES | MODE %o\n", listed.name,
                static_cast<unsigned long long>(listed.size), static_cast<unsigned>(listed.mode));
        if (listing->count == capacity) {
            grow(*listing, capacity);
            capacity *= 2;
        }
    }
    return listing;
}

} // namespace

BlockList walk_archive(FILE* archive) {
    const int form = verify_jank_archive(archive);
    if (form == 2)
        return nullptr;
    Walk found = walk_blocks(archive, form == 1 ? SIGNATURE_SIZE : 0);
    // The entries after the failure would be missing from the listing, and extraction, which deletes the
    // archive, would lose them.
    return found.failed ? nullptr : std::move(found.last);
}

int verify_jank_archive(FILE* archive) {
    char magic[sizeof MAGIC] = {};
    if (!seek_to(archive, 0) || !read_whole(archive, magic, sizeof magic))
        return 2;
    if (std::memcmp(magic, MAGIC, sizeof magic) == 0)
        return 0;
    if (!seek_to(archive, SIGNATURE_SIZE) || !read_whole(archive, magic, sizeof magic))
        return 2;
    return std::memcmp(magic, MAGIC, sizeof magic) == 0 ? 1 : 2;
}

block_info* get_blocks(FILE* archive, std::uint64_t base) {
    return walk_blocks(archive, base).last.release();
}

stat_array* stat_archive(const char* path) {
    try {
        const FileStream archive(open_to_read(path));
        if (!archive)
            return nullptr;
        const BlockList last = walk_archive(archive.get());
        if (!last)
            return nullptr;
        log_msg("Archive %s:\n", path);
        return list_blocks(archive.get(), last.get()).release();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

std::uint16_t little_endian_word(unsigned char low, unsigned char high) {
    return static_cast<std::uint16_t>(high * 256 + low);
}

std::uint64_t little_endian_qword(const unsigned char* bytes) {
    std::uint64_t number = 0;
    for (unsigned i = 0; i < 8; ++i)
        number |= static_cast<std::uint64_t>(bytes[i]) << (8 * i);
    return number;
}

std::size_t sja_strnlen(const char* text) {
    return text == nullptr ? 0 : strnlen(text, 1024);
}

void free_block_list(block_info* last) {
    while (last != nullptr) {
        const block_info* block = last;
        last = block->next;
        delete block;
    }
}

void free_stat_entry(stat_entry* entry) {
    if (entry != nullptr)
        delete[] entry->name;
    delete entry;
}

void free_stat_array(stat_array* listing) {
    if (listing == nullptr)
        return;
    // A listing whose table could not be allocated has no entries.
    for (std::uint64_t i = 0; i < listing->count; ++i)
        free_stat_entry(listing->entries[i]);
    delete[] listing->entries;
    delete listing;
}
