#include "publisher/name_check.h"

#include "model/dunmarel_common.h"
#include "platform/bounded.h"

namespace {

constexpr std::size_t MOST_LISTED_ENTRIES = 15;

std::string without_prefix(const std::string& name) {
    static const std::string prefix = "dunmarel_";
    return name.compare(0, prefix.size(), prefix) == 0 ? name.substr(prefix.size()) : name;
}

std::string warning_about_name(const std::string& name) {
    const std::string fault = package_name_fault(name);
    return fault.empty() ? "" : name + " is no name for a package: " + fault;
}

} // namespace

std::string package_name_fault(const std::string& name) {
    pkg_details details = {};
    const std::string package = without_prefix(name);
    if (package.size() >= sizeof details.name)
        return "it is longer than 127 bytes";
    bounded_copy(details.name, sizeof details.name, package.c_str());
    switch (extract_package_details_from_name(&details)) {
    case 0:
        return "";
    case PACKAGE_NAME_TYPE:
        return "its package type is unknown";
    case PACKAGE_NAME_VERSION:
        return "its version is missing or lower than 7.7";
    case PACKAGE_NAME_OS:
        return "its operating system is unknown";
    case PACKAGE_NAME_EEB_VERSION:
        return "its EEB version is not up to 12 digits and dots";
    default:
        return "it is not of the form dunmarel_TYPE_VERSION_OS.sja or "
               "dunmarel_TYPE_EEBVERSION_VERSION_OS.sja";
    }
}

std::vector<std::string> warnings_about(const std::string& path, const std::vector<ArchiveEntry>& entries) {
    std::vector<std::string> names = {path.substr(path.rfind('/') + 1)};
    // An envelope's entries become files of the repository; those of a single package stay inside.
    if (is_envelope(entries))
        for (const ArchiveEntry& entry : entries)
            names.push_back(entry.name);
    std::vector<std::string> warnings;
    for (const std::string& name : names)
        if (const std::string warning = warning_about_name(name); !warning.empty())
            warnings.push_back(warning);
    if (entries.size() > MOST_LISTED_ENTRIES)
        warnings.push_back(
            "a repository lists only the first entries of an archive of more than 15; this one has " +
            std::to_string(entries.size()));
    return warnings;
}
