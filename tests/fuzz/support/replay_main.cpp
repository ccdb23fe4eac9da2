// Runs a fuzzer over files that are there already: for builds without libFuzzer. Each argument is a file or a
// directory of files.

#include "tests/fuzz/support/property.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

namespace {

std::vector<std::filesystem::path> files_of(const std::filesystem::path& place) {
    if (!std::filesystem::is_directory(place))
        return {place};
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(place))
        files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

void run_file(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    require(file.good(), path.c_str());
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    // Named before it runs, so that the last line names the input that failed.
    std::cerr << path.filename().string() << std::endl;
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

} // namespace

int main(int argc, char** argv) {
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i)
        for (const std::filesystem::path& file : files_of(argv[i])) {
            run_file(file);
            ++count;
        }
    std::cerr << count << " inputs\n";
    return count > 0 ? 0 : 1;
}
