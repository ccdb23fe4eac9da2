#include "platform/catalog_file.h"

#include "platform/regular_file.h"

#include <cstdint>
#include <cstring>

namespace {

constexpr std::size_t MAX_CATALOG_SIZE = std::size_t{1024} * 1024;
constexpr std::uint32_t CATALOG_MAGIC = 0x960408de;
constexpr int SET_OFFSET = 1; // gencat counts the sets from 2

// What a catalog begins with. Two tables of size x depth entries follow, the first one in the byte order of
// the magic number, then the texts.
struct CatalogHeader {
    std::uint32_t magic;
    std::uint32_t plane_size;
    std::uint32_t plane_depth;
};

struct CatalogEntry {
    std::uint32_t set;
    std::uint32_t message;
    std::uint32_t text_offset;
};

template <typename Part>
Part part_at(const std::string& bytes, std::size_t offset) {
    Part part;
    std::memcpy(&part, bytes.data() + offset, sizeof part);
    return part;
}

} // namespace

std::optional<std::string> catalog_text(const std::string& path, int number, int set) {
    std::string bytes;
    if (read_regular_file(path.c_str(), MAX_CATALOG_SIZE, bytes) != 0 ||
        bytes.size() < sizeof(CatalogHeader) || bytes.back() != '\0')
        return std::nullopt;
    const auto header = part_at<CatalogHeader>(bytes, 0);
    const std::uint64_t entries = std::uint64_t{header.plane_size} * header.plane_depth;
    const std::uint64_t room = (bytes.size() - sizeof header) / (2 * sizeof(CatalogEntry));
    if (header.magic != CATALOG_MAGIC || entries == 0 || entries > room)
        return std::nullopt;
    const std::size_t texts = sizeof header + entries * 2 * sizeof(CatalogEntry);
    std::optional<std::string> text;
    // The loop checks all entries: of a damaged catalog nothing is used.
    for (std::size_t i = 0; i < entries; ++i) {
        const auto entry = part_at<CatalogEntry>(bytes, sizeof header + i * sizeof(CatalogEntry));
        if (entry.text_offset >= bytes.size() - texts)
            return std::nullopt;
        if (entry.set == static_cast<std::uint32_t>(set + SET_OFFSET) &&
            entry.message == static_cast<std::uint32_t>(number))
            text = bytes.c_str() + texts + entry.text_offset;
    }
    return text;
}
