#include "files/DiskSpace.h"

#include <sys/statvfs.h>

FreeSpace free_space_of(std::uint64_t blocks, std::uint64_t free_blocks, std::uint64_t block_size) {
    const double percent = static_cast<double>(free_blocks) / static_cast<double>(blocks) * 100.0;
    return {static_cast<float>(percent), (block_size * free_blocks) >> 20U};
}

int getFileSystemFreespace(const char* path, float* percentFree, unsigned long* megabytesFree) {
    struct statvfs volume = {};
    if (statvfs(path, &volume) != 0)
        return 11;
    // f_bfree and f_bsize, not f_bavail and f_frsize: the program runs as the superuser, and the start-up
    // check and the space rule are set for these figures.
    const FreeSpace space = free_space_of(volume.f_blocks, volume.f_bfree, volume.f_bsize);
    *percentFree = space.percent;
    *megabytesFree = space.megabytes;
    return 0;
}
