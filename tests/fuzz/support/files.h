// Where fuzzers keep files: in the sandbox's own product root, which is in memory and gone when it ends.

#ifndef TESTS_FUZZ_SUPPORT_FILES_H
#define TESTS_FUZZ_SUPPORT_FILES_H

#include <string>

// Replaces the content of the file `path`; the directories that lead to it are made. Ends the process when that
// fails.
void put_file(const std::string& path, const std::string& bytes);

// Makes an empty directory below the product root, in place of one of that name. Ends the process when that
// fails, and outside a sandbox.
std::string make_scratch_directory(const std::string& name);

// One file in memory, filled anew for every input.
class MemoryFile {
  public:
    MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    void fill(const std::string& bytes) const;

    // A path under which any code of this process can open the file.
    const std::string& path() const { return path_; }

  private:
    int descriptor_;
    std::string path_;
};

#endif
