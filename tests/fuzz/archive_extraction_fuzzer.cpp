// Any bytes as an archive to extract: the files that appear, their contents and modes, and what is left of
// the archive are what the bytes say, and nothing else in the world around the target directory changes.

#include "files/extractsja.h"
#include "tests/fuzz/support/archive_model.h"
#include "tests/fuzz/support/files.h"
#include "tests/fuzz/support/property.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include <sys/resource.h>
#include <sys/stat.h>

namespace {

// The target lies this deep in the scratch directory: a name that climbs further is not tried.
constexpr std::size_t DEPTH = 6;

// No file may grow larger during an extraction, so that a large declared size is a disk that is full.
constexpr std::uint64_t MAX_FILE_SIZE = 64UL * 1024;

constexpr std::uint64_t CHUNK = 4096;

struct FileState {
    std::string bytes;
    unsigned mode;

    bool operator==(const FileState& other) const { return bytes == other.bytes && mode == other.mode; }
};
using Files = std::map<std::string, FileState>; // by path

// The scratch directory, and in it archive.sja, directories 1/2/3/4/5/6 and, as the target holds a directory of its
// own, 6/sub.
struct World {
    std::string root = make_scratch_directory("extraction");
    std::string archive = root + "/archive.sja";
    std::string target = root + "/1/2/3/4/5/6";
    std::set<std::string> directories;

    World() {
        std::filesystem::create_directories(target + "/sub");
        directories.insert(root);
        for (const auto& entry : std::filesystem::recursive_directory_iterator(root))
            directories.insert(entry.path().string());
    }

    void empty() const {
        std::vector<std::filesystem::path> files;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(root))
            if (directories.count(entry.path().string()) == 0)
                files.push_back(entry.path());
        for (const std::filesystem::path& file : files)
            require(std::filesystem::remove(file), "what an extraction made is a file");
    }

    Files files() const {
        Files all;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
            const std::string path = entry.path().string();
            if (directories.count(path) != 0)
                continue;
            struct stat status = {};
            require(lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode), "only files appear");
            std::ifstream file(path, std::ios::binary);
            all[path] = {std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()),
                         status.st_mode & 07777U};
        }
        return all;
    }
};

// Where a path leads, by following it from directory to directory: none when the system would refuse to write
// there.
std::optional<std::string> place_of(const World& world, const std::string& name) {
    std::string place = world.target;
    std::string rest = "/" + name;
    while (true) {
        const std::size_t start = rest.find_first_not_of('/');
        if (start == std::string::npos)
            return std::nullopt; // ends in a slash
        const std::size_t end = std::min(rest.find('/', start), rest.size());
        const std::string step = rest.substr(start, end - start);
        rest.erase(0, end);
        if (step == "..")
            place.erase(place.rfind('/'));
        else if (step != ".")
            place += "/" + step;
        const bool directory = world.directories.count(place) != 0;
        if (rest.empty())
            return directory ? std::nullopt : std::optional<std::string>(place);
        if (!directory)
            return std::nullopt;
    }
}

// The bytes of an entry's file: what the archive lacks is filled with what the chunk before it left.
std::string data_of(const ModelEntry& entry, const std::string& archive) {
    std::string buffer(CHUNK, '\0');
    std::string data;
    std::uint64_t offset = entry.data_offset;
    for (std::uint64_t left = entry.data_size; left > 0;) {
        const std::uint64_t chunk = std::min(left, CHUNK);
        if (offset < archive.size())
            archive.copy(buffer.data(), chunk, offset);
        data.append(buffer, 0, chunk);
        offset += chunk;
        left -= chunk;
    }
    return data;
}

struct Expectation {
    bool success = false;
    Files files;
};

Expectation expected_of(const World& world, const std::string& bytes) {
    Expectation expected;
    Files& files = expected.files;
    std::string archive = bytes;
    const ModelArchive model = read_archive_model(bytes);
    expected.success = !model.entries.empty();
    for (std::size_t i = model.entries.size(); i > 0; --i) {
        const ModelEntry& entry = model.entries[i - 1];
        const auto place = place_of(world, up_to_nul(entry.name));
        if (!place || *place == world.archive || entry.data_size > MAX_FILE_SIZE) {
            expected.success = false;
            break;
        }
        files[*place] = {data_of(entry, archive), entry.mode & 07777U};
        archive.resize(entry.offset);
    }
    if (!expected.success)
        files[world.archive] = {archive, 0644};
    return expected;
}

void limit_file_size(rlim_t size) {
    const rlimit limit = {size, RLIM_INFINITY};
    require(setrlimit(RLIMIT_FSIZE, &limit) == 0, "the size of files can be limited");
}

bool extract(const World& world) {
    limit_file_size(MAX_FILE_SIZE);
    const int result = do_extract(world.archive.c_str(), world.target.c_str());
    limit_file_size(RLIM_INFINITY);
    require(result == 0 || result == 1, "an extraction succeeds or fails");
    return result == 1;
}

// However the bytes are read as names, they must not lead out of the scratch directory.
bool may_climb_out(const std::string& bytes) {
    std::size_t climbs = 0;
    for (std::size_t at = bytes.find(".."); at != std::string::npos; at = bytes.find("..", at + 1))
        ++climbs;
    return climbs > DEPTH;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const World world;
    static const auto ignored = std::signal(SIGXFSZ, SIG_IGN);
    require(ignored != SIG_ERR, "a file that grows too large is an error, not a signal");
    const std::string bytes = as_text(data, size);
    if (may_climb_out(bytes) || size > MAX_FILE_SIZE)
        return -1;
    world.empty();
    put_file(world.archive, bytes);
    const Expectation expected = expected_of(world, bytes);
    require(extract(world) == expected.success, "an extraction succeeds when every entry can be written");
    require(world.files() == expected.files,
            "what is there afterwards is what the entries say, and of the archive what was not extracted");
    return 0;
}
