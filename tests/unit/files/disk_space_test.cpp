#include "files/DiskSpace.h"

#include "files/QvRepoHelper.h"
#include "tests/support/small_volume.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include <sys/statvfs.h>

namespace {

constexpr const char* VOLUME_WITH_RESERVED_BLOCKS = "/a volume with reserved blocks";

} // namespace

// In front of the system's call (see this directory's CMakeLists.txt): one path is a volume of 1000 blocks, 300
// of them free and all of those reserved for the superuser, whose fragments are smaller than its blocks.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's names
int __real_statvfs64(const char* path, struct statvfs* volume);

int __wrap_statvfs64(const char* path, struct statvfs* volume) {
    if (std::string(path) != VOLUME_WITH_RESERVED_BLOCKS)
        return __real_statvfs64(path, volume);
    volume->f_blocks = 1000;
    volume->f_bfree = 300;
    volume->f_bavail = 0;
    volume->f_bsize = 4096;
    volume->f_frsize = 512;
    return 0;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
}

TEST(FreeSpace, IsAPercentageOfAllBlocksAndWholeMebibytes) {
    const struct {
        std::uint64_t blocks, free_blocks, block_size;
        float percent;
        std::uint64_t megabytes;
    } cases[] = {
        {1000000, 10000, 4096, 1.0F, 39},
        {1000000, 9999, 4096, 0.9999F, 39},
        {1000, 300, 4096, 30.0F, 1},
        {1000, 255, 4096, 25.5F, 0},
        {1000, 256, 4096, 25.6F, 1},
        {3, 1, 512, 33.333333F, 0},
        {100, 0, 4096, 0.0F, 0},
        {100, 100, 1048576, 100.0F, 100},
        {std::uint64_t{1} << 50, std::uint64_t{1} << 49, 4096, 50.0F, std::uint64_t{1} << 41},
    };
    for (const auto& c : cases) {
        const FreeSpace space = free_space_of(c.blocks, c.free_blocks, c.block_size);
        EXPECT_EQ(space.percent, c.percent) << c.free_blocks << " of " << c.blocks;
        EXPECT_EQ(space.megabytes, c.megabytes) << c.free_blocks << " of " << c.blocks;
    }
}

TEST(FreeSpace, OfExactlyOnePercentIsNotLessThanOne) {
    EXPECT_FALSE(free_space_of(1000000, 10000, 4096).percent < 1.0F);
    EXPECT_TRUE(free_space_of(1000000, 9999, 4096).percent < 1.0F);
}

TEST(FreeSpace, OfAVolumeWithoutBlocksIsNotANumber) {
    EXPECT_TRUE(std::isnan(free_space_of(0, 0, 4096).percent));
}

TEST(FreeSpace, IsReadFromTheVolumeThatHoldsThePath) {
    const SmallVolume volume("size=8m");
    float percent = 0;
    unsigned long megabytes = 0;
    ASSERT_EQ(getFileSystemFreespace(volume.path().c_str(), &percent, &megabytes), 0);
    EXPECT_EQ(percent, 100.0F);
    EXPECT_EQ(megabytes, 8U);

    write_file(volume.path("half"), std::string(4U << 20U, 'x'));
    ASSERT_EQ(QvRepoHelper::getFreeSpace(volume.path("half").c_str(), &percent, &megabytes), 0);
    EXPECT_EQ(percent, 50.0F);
    EXPECT_EQ(megabytes, 4U);
}

TEST(FreeSpace, CountsReservedBlocksAndTheBlockSizeThatTheVolumeReports) {
    float percent = 0;
    unsigned long megabytes = 0;
    EXPECT_EQ(getFileSystemFreespace(VOLUME_WITH_RESERVED_BLOCKS, &percent, &megabytes), 0);
    EXPECT_EQ(percent, 30.0F);
    EXPECT_EQ(megabytes, 1U);
}

TEST(FreeSpace, LeavesItsOutputsAloneWhenThereIsNoSuchPath) {
    float percent = 12.5F;
    unsigned long megabytes = 77;
    EXPECT_EQ(getFileSystemFreespace("/no/such/place", &percent, &megabytes), 11);
    EXPECT_EQ(QvRepoHelper::getFreeSpace("/no/such/place", &percent, &megabytes), 11);
    EXPECT_EQ(percent, 12.5F);
    EXPECT_EQ(megabytes, 77U);
}
