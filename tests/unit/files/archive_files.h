// An archive in a temporary directory, opened and read by the archive reader.

#ifndef TESTS_UNIT_FILES_ARCHIVE_FILES_H
#define TESTS_UNIT_FILES_ARCHIVE_FILES_H

#include "files/extractsja.h"
#include "files/file_stream.h"
#include "platform/handle.h"
#include "tests/support/sja_builder.h"

#include <memory>
#include <ostream>
#include <string>
#include <vector>

using Listing = std::unique_ptr<stat_array, Release<free_stat_array>>;

inline Listing listing_of(const std::string& path) {
    return Listing(stat_archive(path.c_str()));
}

// A block as the walk found it, without its link.
struct Block {
    std::uint64_t offset;
    std::uint32_t index;
    unsigned name_length;
    std::uint64_t data_size;
    unsigned mode;

    bool operator==(const Block& other) const {
        return offset == other.offset && index == other.index && name_length == other.name_length &&
               data_size == other.data_size && mode == other.mode;
    }
};

inline std::ostream& operator<<(std::ostream& out, const Block& block) {
    return out << "{offset " << block.offset << ", index " << block.index << ", name " << block.name_length
               << ", size " << block.data_size << ", mode " << std::oct << block.mode << std::dec << "}";
}

// The blocks that the walk finds in the file after a magic at `base`, in the walk's order.
inline std::vector<Block> blocks_of(const std::string& path, std::uint64_t base) {
    const FileStream archive(std::fopen(path.c_str(), "rb"));
    block_info* last = get_blocks(archive.get(), base);
    std::vector<Block> blocks;
    for (const block_info* block = last; block != nullptr; block = block->next)
        blocks.push_back({block->offset, block->index, block->name_length, block->data_size, block->mode});
    free_block_list(last);
    return blocks;
}

// "NAME SIZE MODE DATA_OFFSET" for every slot of the listing, "-" for an empty one; "none" without a listing.
inline std::vector<std::string> lines_of(const Listing& listing) {
    if (!listing)
        return {"none"};
    std::vector<std::string> lines;
    for (std::uint64_t i = 0; i < listing->count; ++i) {
        const stat_entry* entry = listing->entries[i];
        if (entry == nullptr) {
            lines.emplace_back("-");
            continue;
        }
        char mode[16];
        static_cast<void>(std::snprintf(mode, sizeof mode, "%o", static_cast<unsigned>(entry->mode)));
        lines.push_back(std::string(entry->name) + " " + std::to_string(entry->size) + " " + mode + " " +
                        std::to_string(entry->data_offset));
    }
    return lines;
}

// `count` one-byte entries "e1", "e2", ... in file order.
inline std::vector<SjaEntry> numbered_entries(int count) {
    std::vector<SjaEntry> entries;
    for (int i = 1; i <= count; ++i)
        entries.push_back({"e" + std::to_string(i), "x"});
    return entries;
}

#endif
