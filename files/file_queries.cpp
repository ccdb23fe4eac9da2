// What the repository's operations ask about a file or a name.

#include "files/QvRepoHelper.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include <sys/stat.h>
#include <unistd.h>

namespace QvRepoHelper {

bool sameFile(const std::string& a, const std::string& b) {
    struct stat first = {};
    struct stat second = {};
    if (stat(a.c_str(), &first) != 0 || stat(b.c_str(), &second) != 0)
        return false;
    return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

std::uint64_t fileSize(const char* path) {
    struct stat file = {};
    return stat(path, &file) == 0 ? static_cast<std::uint64_t>(file.st_size) : 0;
}

bool pathExists(const char* path) {
    return path != nullptr && access(path, F_OK) == 0;
}

bool isSjaExtension(std::string name) {
    constexpr std::string_view extension = ".sja";
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return name.size() >= extension.size() &&
           name.compare(name.size() - extension.size(), extension.size(), extension) == 0;
}

} // namespace QvRepoHelper
