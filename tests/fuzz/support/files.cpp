#include "tests/fuzz/support/files.h"

#include "platform/paths.h"
#include "tests/fuzz/support/property.h"

#include <cstdlib>
#include <filesystem>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

void require_sandbox() {
    require(std::getenv("QV_SANDBOX") != nullptr, "fuzzers run inside scripts/sandbox --bare");
}

void write_all(int descriptor, const std::string& bytes) {
    require(ftruncate(descriptor, 0) == 0, "the file can be emptied");
    require(pwrite(descriptor, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
            "the file can be written");
}

} // namespace

void put_file(const std::string& path, const std::string& bytes) {
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC;
    int file = open(path.c_str(), flags, 0644);
    if (file < 0) {
        require_sandbox();
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        file = open(path.c_str(), flags, 0644);
    }
    require(file >= 0, "the file can be opened");
    write_all(file, bytes);
    close(file);
}

std::string make_scratch_directory(const std::string& name) {
    require_sandbox();
    const std::string directory = std::string(QV_PRODUCT_ROOT) + "/" + name;
    std::filesystem::remove_all(directory);
    std::filesystem::create_directories(directory);
    return directory;
}

MemoryFile::MemoryFile()
    : descriptor_(memfd_create("input", MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(descriptor_)) {
    require(descriptor_ >= 0, "there is a file in memory");
}

void MemoryFile::fill(const std::string& bytes) const {
    write_all(descriptor_, bytes);
}
