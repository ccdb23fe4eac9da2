// The product root of the sandbox that a test runs in, made for the test and emptied after it.

#ifndef TESTS_SUPPORT_PRODUCT_ROOT_H
#define TESTS_SUPPORT_PRODUCT_ROOT_H

#include "platform/paths.h"
#include "tests/support/temporary_directory.h"

#include <cstdlib>

// Holds an empty repository, a directory for the package-signing key, and nothing else.
class ProductRoot {
  public:
    ProductRoot() {
        if (std::getenv("QV_SANDBOX") == nullptr)
            throw std::runtime_error(
                "run this test by scripts/sandbox --bare: it writes to the product root");
        empty();
        std::filesystem::create_directories(repository());
        std::filesystem::create_directories(PACKAGE_KEY_DIRECTORY);
    }
    ProductRoot(const ProductRoot&) = delete;
    ProductRoot& operator=(const ProductRoot&) = delete;
    ~ProductRoot() { empty(); }

    static std::string repository() { return REPOSITORY_DIRECTORY; }
    static std::string in_repository(const std::string& name) { return repository() + "/" + name; }
    static std::string key_file() { return std::string(PACKAGE_KEY_DIRECTORY) + "/pubkey.pem"; }

    static void install_key(const std::string& pem) { write_file(key_file(), pem); }

    // The names of the repository's files, sorted, hidden ones included.
    static std::vector<std::string> repository_names() {
        std::vector<std::string> all;
        for (const auto& entry : std::filesystem::directory_iterator(repository()))
            all.push_back(entry.path().filename().string());
        std::sort(all.begin(), all.end());
        return all;
    }

  private:
    static void empty() {
        for (const auto& entry : std::filesystem::directory_iterator(QV_PRODUCT_ROOT))
            std::filesystem::remove_all(entry.path());
    }
};

#endif
