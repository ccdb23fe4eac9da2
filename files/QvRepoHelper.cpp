#include "files/QvRepoHelper.h"

#include "files/DiskSpace.h"
#include "files/extractsja.h"
#include "model/QvRepoPackage.h"
#include "platform/debug_log.h"
#include "platform/file_ops.h"
#include "platform/handle.h"
#include "platform/status_codes.h"
#include "seam/T.h"

#include <istream>
#include <memory>
#include <ostream>

namespace {

void append_envelope_items(const stat_array& listing, std::vector<QvRepoPackageItem>& items) {
    // The count is read as a 32-bit number here, so a longer listing has no items.
    const auto count = static_cast<std::int32_t>(listing.count);
    for (std::int32_t i = 0; i < count; ++i)
        if (const stat_entry* entry = listing.entries[i])
            items.push_back({entry->name, entry->size});
}

QvRepoPackageItem package_itself(const char* path) {
    return {base_name(path), QvRepoHelper::fileSize(path)};
}

} // namespace

namespace QvRepoHelper {

bool isSjaEnvelope(const stat_array* listing) {
    const char* function = "QvRepoHelper::isSjaEnvelope";
    bool envelope = true;
    logmsg(4, "Contents of the sja file:", function);
    for (std::uint64_t i = 0; i < listing->count; ++i) {
        const stat_entry* entry = listing->entries[i];
        if (entry == nullptr)
            continue;
        logmsgf(4, function, "%s|%llu|%o", entry->name, static_cast<unsigned long long>(entry->size),
                static_cast<unsigned>(entry->mode));
        // No early end: the log shows every entry, whatever the verdict.
        if (!isSjaExtension(entry->name))
            envelope = false;
    }
    logmsg(4, envelope ? "The package is an sja envelope." : "The package is not an sja envelope.", function);
    return envelope;
}

int readSjaContents(const char* path, std::vector<QvRepoPackageItem>& items) {
    const char* function = "QvRepoHelper::readSjaContents";
    logmsgf(4, function, "Reading package contents in [%s].", path);
    if (!T::pathExists(path)) {
        logmsgf(16, function, "Failed to read package content. Supplied .sja file does not exist: [%s].",
                path);
        return STATUS_FILE_NOT_FOUND;
    }
    const std::unique_ptr<stat_array, Release<free_stat_array>> listing(T::stat_archive(path));
    if (!listing) {
        logmsgf(16, function, "Failed to stat sja file [%s].", path);
        return STATUS_UNREADABLE_ARCHIVE;
    }
    if (isSjaEnvelope(listing.get()))
        append_envelope_items(*listing, items);
    else
        items.push_back(package_itself(path));
    return 0;
}

int confirmAction(const std::string& prompt, std::ostream& out, std::istream& in) {
    out << prompt << std::flush;
    std::string line;
    if (!std::getline(in, line) || line.empty())
        return 0;
    return line[0] == 'y' || line[0] == 'Y' ? 1 : 0;
}

// By value, as the seam passes it on.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
int deletePackageItems(std::vector<std::string> paths) {
    const char* function = "QvRepoHelper::deletePackageItems";
    bool deleted_all = true;
    for (const std::string& path : paths) {
        if (!pathExists(path.c_str()))
            logmsgf(16, function, "Package item %s does not exist.", path.c_str());
        // Tried all the same: the system decides the outcome.
        if (T::fileDELETE(path.c_str()) != 0) {
            logmsgf(16, function, "Failed to delete package item %s.", path.c_str());
            deleted_all = false;
        } else {
            logmsgf(4, function, "Deleted package item %s.", path.c_str());
        }
    }
    return deleted_all ? 1 : 0;
}

int getFreeSpace(const char* path, float* percentFree, unsigned long* megabytesFree) {
    return getFileSystemFreespace(path, percentFree, megabytesFree);
}

} // namespace QvRepoHelper
