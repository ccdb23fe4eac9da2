#include "tests/fuzz/support/archive_model.h"

#include <algorithm>
#include <cctype>
#include <limits>

namespace {

constexpr std::uint64_t HEADER = 11;
constexpr std::uint64_t SHORTEST_HEADER = 9;
constexpr std::uint64_t SIGNATURE = 512;
constexpr std::uint64_t MAX_OFFSET = std::numeric_limits<std::int64_t>::max();

bool has_magic_at(const std::string& bytes, std::size_t offset) {
    return bytes.size() >= offset + 4 && bytes.compare(offset, 4, "JANK") == 0;
}

// The number in the `count` bytes at `offset`, lowest first; what the file lacks counts as 0.
std::uint64_t number_at(const std::string& bytes, std::uint64_t offset, unsigned count) {
    std::uint64_t number = 0;
    for (unsigned i = 0; i < count && offset + i < bytes.size(); ++i)
        number |= std::uint64_t{static_cast<unsigned char>(bytes[offset + i])} << (8 * i);
    return number;
}

ModelEntry entry_at(const std::string& bytes, std::uint64_t offset) {
    ModelEntry entry;
    entry.offset = offset;
    entry.name_length = static_cast<std::uint8_t>(number_at(bytes, offset, 1));
    entry.data_size = number_at(bytes, offset + 1, 8);
    entry.mode = static_cast<unsigned>(number_at(bytes, offset + 9, 2));
    entry.data_offset = offset + HEADER + entry.name_length;
    const std::size_t name_offset = std::min<std::uint64_t>(offset + HEADER, bytes.size());
    entry.name = bytes.substr(name_offset, entry.name_length);
    return entry;
}

} // namespace

ModelArchive read_archive_model(const std::string& bytes) {
    ModelArchive archive;
    if (has_magic_at(bytes, 0))
        archive.form = MODEL_UNSIGNED;
    else if (has_magic_at(bytes, SIGNATURE))
        archive.form = MODEL_SIGNED;
    else
        return archive;
    archive.base = archive.form == MODEL_SIGNED ? SIGNATURE : 0;
    for (std::uint64_t offset = archive.base + 4; offset + SHORTEST_HEADER <= bytes.size();) {
        archive.entries.push_back(entry_at(bytes, offset));
        const ModelEntry& entry = archive.entries.back();
        if (entry.data_size > MAX_OFFSET - entry.data_offset)
            break;
        offset = entry.data_offset + entry.data_size;
    }
    return archive;
}

bool is_package_name(const std::string& name) {
    if (name.size() < 4)
        return false;
    std::string ending = name.substr(name.size() - 4);
    std::transform(ending.begin(), ending.end(), ending.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ending == ".sja";
}
