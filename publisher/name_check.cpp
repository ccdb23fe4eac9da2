#include "publisher/name_check.h"

#include "model/dunmarel_common.h"
#include "platform/bounded.h"

namespace {

std::string without_prefix(const std::string& name) {
    static const std::string prefix = "dunmarel_";
    return name.compare(0, prefix.size(), prefix) == 0 ? name.substr(prefix.size()) : name;
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
