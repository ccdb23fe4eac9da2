// Tests that need the product's fixed places: each starts with an empty /usr/ormex, private to the test
// program.

#ifndef TESTS_UNIT_PLATFORM_PRODUCT_TREE_H
#define TESTS_UNIT_PLATFORM_PRODUCT_TREE_H

#include "tests/support/temporary_directory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

inline void empty_product_tree() {
    // Outside the sandbox this would be the machine's own product.
    if (std::getenv("QV_SANDBOX") == nullptr)
        throw std::runtime_error("run this program inside scripts/sandbox --bare");
    for (const auto& entry : std::filesystem::directory_iterator("/usr/ormex"))
        std::filesystem::remove_all(entry.path());
}

// Writes `bytes` to `path`, making the directories above it.
inline void write_product_file(const std::string& path, const std::string& bytes) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    write_file(path, bytes);
}

class ProductTree : public ::testing::Test {
  protected:
    void SetUp() override { empty_product_tree(); }
};

#endif
