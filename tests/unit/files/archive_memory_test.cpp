// The archive reader when memory runs out at each of its allocations in turn.

#include "tests/unit/files/archive_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

using ::testing::ElementsAre;

namespace {

// How many more allocations succeed; negative for all of them.
long allocations_left = -1;

bool may_allocate() {
    if (allocations_left < 0)
        return true;
    if (allocations_left == 0)
        return false;
    --allocations_left;
    return true;
}

} // namespace

// Not inlined: a compiler that sees malloc inside new, or free inside delete, takes the pair for mismatched.
__attribute__((noinline)) void* operator new(std::size_t size) {
    void* memory = may_allocate() ? std::malloc(size == 0 ? 1 : size) : nullptr;
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}
__attribute__((noinline)) void* operator new[](std::size_t size) {
    return operator new(size);
}
__attribute__((noinline)) void operator delete(void* memory) noexcept {
    std::free(memory);
}
__attribute__((noinline)) void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
__attribute__((noinline)) void operator delete[](void* memory) noexcept {
    std::free(memory);
}
__attribute__((noinline)) void operator delete[](void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

namespace {

// Calls `body` with ever more allocations allowed until it succeeds, and returns how often it failed.
template <typename Body>
int failures_until_success(const Body& body) {
    for (int allowed = 0; allowed < 1000; ++allowed) {
        allocations_left = allowed;
        const bool done = body();
        allocations_left = -1;
        if (done)
            return allowed;
    }
    return -1;
}

} // namespace

TEST(OutOfMemory, FailsAListingAndLeavesNothing) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("a.sja");
    write_file(path, sja_bytes(numbered_entries(17)));

    Listing listing;
    const int failures = failures_until_success([&] {
        listing.reset(stat_archive(path.c_str()));
        return listing != nullptr;
    });
    // 17 blocks, 17 entries with a name each, the listing and its two tables.
    EXPECT_GE(failures, 17 * 3 + 3);
    EXPECT_EQ(listing->count, 17U);
}

TEST(OutOfMemory, FailsAnExtractionThatLaterGoesOn) {
    const TemporaryDirectory directory;
    const std::string archive = directory.path("a.sja");
    const std::string out = directory.path("out");
    std::filesystem::create_directory(out);
    write_file(archive, sja_bytes({{"one", "1"}, {"a name that needs memory of its own", "2"}}));

    const int failures = failures_until_success([&] {
        const int result = do_extract(archive.c_str(), out.c_str());
        allocations_left = -1;
        EXPECT_EQ(result, std::filesystem::exists(archive) ? 0 : 1);
        return result == 1;
    });
    EXPECT_GE(failures, 4);
    EXPECT_THAT(directory.names(), ElementsAre("out/", "out/a name that needs memory of its own", "out/one"));
}
