// What an archive holds, read from its bytes in memory by rules of its own: what the archive reader's results
// are compared with.

#ifndef TESTS_FUZZ_SUPPORT_ARCHIVE_MODEL_H
#define TESTS_FUZZ_SUPPORT_ARCHIVE_MODEL_H

#include <cstdint>
#include <string>
#include <vector>

struct ModelEntry {
    std::uint64_t offset = 0;      // of the entry's first byte
    std::uint8_t name_length = 0;  // as stored
    std::uint64_t data_size = 0;   // as stored
    unsigned mode = 0;             // as stored
    std::uint64_t data_offset = 0; // where the data begins, or would
    std::string name;              // as much of it as the file holds

    bool has_whole_name() const { return name.size() == name_length; }
};

enum ModelForm { MODEL_UNSIGNED = 0, MODEL_SIGNED = 1, MODEL_NO_ARCHIVE = 2 };

struct ModelArchive {
    ModelForm form = MODEL_NO_ARCHIVE;
    std::uint64_t base = 0; // of the magic
    std::vector<ModelEntry> entries;
};

ModelArchive read_archive_model(const std::string& bytes);

// Whether a name ends in ".sja", in any letter case.
bool is_package_name(const std::string& name);

#endif
