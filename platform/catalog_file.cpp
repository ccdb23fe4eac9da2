#include "platform/catalog_file.h"

#include "platform/regular_file.h"

#include <cstdint>
#include <cstring>
#include <nl_types.h>

namespace {

constexpr std::size_t MAX_CATALOG_SIZE = std::size_t{1024} * 1024;
constexpr std::uint32_t CATALOG_MAGIC = 0x960408de;

// What a catalog begins with. Behind it stand two tables of size x depth entries, in both byte orders, then
// the texts.
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

// The C library follows the numbers of a catalog wherever they lead, so all of them are checked before it
// sees them.
bool is_sound_catalog(const std::string& bytes) {
    if (bytes.size() < sizeof(CatalogHeader) || bytes.back() != '\0')
        return false;
    const auto header = part_at<CatalogHeader>(bytes, 0);
    const std::uint64_t entries = std::uint64_t{header.plane_size} * header.plane_depth;
    const std::uint64_t room = (bytes.size() - sizeof(CatalogHeader)) / (2 * sizeof(CatalogEntry));
    if (header.magic != CATALOG_MAGIC || entries == 0 || entries > room)
        return false;
    const std::size_t texts = bytes.size() - sizeof(CatalogHeader) - entries * 2 * sizeof(CatalogEntry);
    for (std::size_t i = 0; i < entries; ++i) {
        if (part_at<CatalogEntry>(bytes, sizeof(CatalogHeader) + i * sizeof(CatalogEntry)).text_offset >=
            texts)
            return false;
    }
    return true;
}

class Catalog {
  public:
    // A path with a slash is opened as it stands, whatever the environment says.
    explicit Catalog(const std::string& path) : descriptor_(catopen(path.c_str(), 0)) {}
    Catalog(const Catalog&) = delete;
    Catalog& operator=(const Catalog&) = delete;
    ~Catalog() {
        if (is_open())
            catclose(descriptor_);
    }

    std::optional<std::string> text(int number) const {
        static const char missing[] = "";
        const char* found = is_open() ? catgets(descriptor_, 1, number, missing) : missing;
        return found == missing ? std::nullopt : std::optional<std::string>(found);
    }

  private:
    bool is_open() const {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): catopen says so
        return descriptor_ != reinterpret_cast<nl_catd>(-1);
    }

    nl_catd descriptor_;
};

} // namespace

std::optional<std::string> catalog_text(const std::string& path, int number) {
    std::string bytes;
    if (read_regular_file(path.c_str(), MAX_CATALOG_SIZE, bytes) != 0 || !is_sound_catalog(bytes))
        return std::nullopt;
    return Catalog(path).text(number);
}
