// Any bytes as an archive: its form, its entries, its listing and a package's contents are what the bytes
// say.

#include "files/QvRepoHelper.h"
#include "files/block_list.h"
#include "model/QvRepoPackage.h"
#include "tests/fuzz/support/archive_model.h"
#include "tests/fuzz/support/files.h"
#include "tests/fuzz/support/property.h"
#include "tests/unit/files/archive_files.h"

#include <algorithm>
#include <optional>

namespace {

void check_blocks(const std::string& path, const ModelArchive& model) {
    const FileStream archive(std::fopen(path.c_str(), "rbe"));
    require(archive != nullptr, "the input can be opened");
    require(verify_jank_archive(archive.get()) == model.form, "the magic determines the form");
    if (model.form == MODEL_NO_ARCHIVE)
        return;
    const BlockList last(get_blocks(archive.get(), model.base));
    const block_info* block = last.get();
    for (std::size_t i = model.entries.size(); i > 0; --i, block = block->next) {
        const ModelEntry& entry = model.entries[i - 1];
        require(block != nullptr, "every entry has its block");
        require(block->index == i && block->offset == entry.offset, "a block knows its place");
        require(block->name_length == entry.name_length && block->data_size == entry.data_size &&
                    block->mode == entry.mode,
                "a block holds what its header says");
    }
    require(block == nullptr, "there is no block without an entry");
}

// Which entry stands in each slot of a listing: counted from the last entry, none for an empty slot. The
// table doubles each time it is full, and only an eighth of the slots that it had are carried over.
std::vector<std::optional<std::size_t>> expected_slots(std::size_t entries) {
    std::vector<std::optional<std::size_t>> slots;
    std::size_t capacity = 16;
    for (std::size_t i = 0; i < entries; ++i) {
        slots.emplace_back(i);
        if (slots.size() == capacity) {
            std::fill(slots.begin() + static_cast<std::ptrdiff_t>(capacity / 8), slots.end(), std::nullopt);
            capacity *= 2;
        }
    }
    return slots;
}

// The entries that a listing shows, in its order.
std::vector<ModelEntry> check_listing(const stat_array& listing, const ModelArchive& model) {
    const auto slots = expected_slots(model.entries.size());
    std::vector<ModelEntry> listed;
    require(listing.count == slots.size(), "the listing counts every entry");
    for (std::size_t i = 0; i < slots.size(); ++i) {
        const stat_entry* entry = listing.entries[i];
        require((entry != nullptr) == slots[i].has_value(), "the slots that are lost are empty");
        if (entry == nullptr)
            continue;
        const ModelEntry& expected = model.entries[model.entries.size() - 1 - *slots[i]];
        require(std::string(entry->name, expected.name_length + 1U) == expected.name + '\0',
                "a listed name is the stored one, terminated");
        require(entry->mode == expected.mode && entry->size == expected.data_size &&
                    entry->data_offset == expected.data_offset,
                "a listed entry holds what its header says");
        listed.push_back(expected);
    }
    return listed;
}

void check_contents(const std::string& path, std::uint64_t size, const std::vector<ModelEntry>& listed) {
    std::vector<QvRepoPackageItem> items;
    require(QvRepoHelper::readSjaContents(path.c_str(), items) == 0, "what can be listed has contents");
    const bool envelope = std::all_of(listed.begin(), listed.end(), [](const ModelEntry& entry) {
        return is_package_name(up_to_nul(entry.name));
    });
    if (!envelope) {
        require(items.size() == 1 && items[0].fileName == path.substr(path.rfind('/') + 1) &&
                    items[0].fileSize == size,
                "a single package is its own item");
        return;
    }
    require(items.size() == listed.size(), "an envelope has an item for each entry listed");
    for (std::size_t i = 0; i < items.size(); ++i)
        require(items[i].fileName == up_to_nul(listed[i].name) && items[i].fileSize == listed[i].data_size,
                "an envelope's items are its entries");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const MemoryFile file;
    const std::string bytes = as_text(data, size);
    file.fill(bytes);
    const ModelArchive model = read_archive_model(bytes);
    check_blocks(file.path(), model);

    const Listing listing = listing_of(file.path());
    const bool names_whole = std::all_of(model.entries.begin(), model.entries.end(),
                                         [](const ModelEntry& entry) { return entry.has_whole_name(); });
    require((listing != nullptr) == (!model.entries.empty() && names_whole),
            "an archive is listed when it has entries and all of their names");
    if (listing)
        check_contents(file.path(), bytes.size(), check_listing(*listing, model));
    return 0;
}
