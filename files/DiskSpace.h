// How much of a volume is free.

#ifndef FILES_DISKSPACE_H
#define FILES_DISKSPACE_H

#include <cstdint>

struct FreeSpace {
    float percent;           // of all blocks; not a number for a volume that reports no blocks at all
    std::uint64_t megabytes; // whole mebibytes, rounded down
};

// The free space of a volume of `blocks` blocks, `free_blocks` of them free, with `block_size` bytes each.
FreeSpace free_space_of(std::uint64_t blocks, std::uint64_t free_blocks, std::uint64_t block_size);

// Queries the volume that holds `path`. `*percentFree` receives the free share of all blocks in percent,
// `*megabytesFree` the free space in whole mebibytes, rounded down; blocks reserved for the superuser count
// as free. Returns 0, or 11 when the volume cannot be queried; the outputs then keep what the caller put
// there.
int getFileSystemFreespace(const char* path, float* percentFree, unsigned long* megabytesFree);

#endif
