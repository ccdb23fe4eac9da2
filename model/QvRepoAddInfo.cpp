#include "model/QvRepoAddInfo.h"

#include "model/dunmarel_common.h"
#include "model/json_document.h"
#include "platform/bounded.h"
#include "platform/debug_log.h"
#include "platform/file_ops.h"
#include "platform/handle.h"
#include "platform/status_codes.h"
#include "seam/T.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr const char* NAME_PREFIX = "dunmarel_";
constexpr const char* NAME_LABEL = "QvRepoAddInfo::getPackageAttributesFromFilePath";
constexpr const char* BODY_LABEL = "QvRepoAddInfo::getJSONPackageDetails";

struct NameRefusal {
    int error; // PackageNameError
    const char* text;
    int status;
};

constexpr std::array<NameRefusal, 5> NAME_REFUSALS = {{
    {PACKAGE_NAME_EMPTY, "Package name was null or empty.", STATUS_UNRECOGNIZED_NAME},
    {PACKAGE_NAME_TYPE, "Package type is not supported.", STATUS_UNSUPPORTED_TYPE},
    {PACKAGE_NAME_VERSION, "Package version is not supported.", STATUS_UNSUPPORTED_VERSION},
    {PACKAGE_NAME_OS, "Package operating system is not supported.", STATUS_UNSUPPORTED_OS},
    {PACKAGE_NAME_EEB_VERSION, "Package EEB version is not supported.", STATUS_UNSUPPORTED_EEB_VERSION},
}};

// Logs why the name was refused and returns the status for it.
int refuse_name(int error) {
    logmsgf(16, NAME_LABEL, "extract_package_details_from_name returned error code [%d].", error);
    logmsg(16, "Input file name does not comply with package name standard.", NAME_LABEL);
    for (const NameRefusal& refusal : NAME_REFUSALS) {
        if (refusal.error == error) {
            logmsg(16, refusal.text, NAME_LABEL);
            return refusal.status;
        }
    }
    return STATUS_UNRECOGNIZED_NAME;
}

// A null member makes json_pack fail, so an item that cannot be packed fails the body instead of leaving a
// gap.
json_t* pack_items(const std::vector<QvRepoPackageItem>& items) {
    json_t* array = json_array();
    for (const QvRepoPackageItem& item : items) {
        json_t* packed = json_pack("{s:s, s:I}", "fileName", item.fileName.c_str(), "fileSize",
                                   static_cast<json_int_t>(item.fileSize));
        if (json_array_append_new(array, packed) != 0) {
            json_decref(array);
            return nullptr;
        }
    }
    return array;
}

} // namespace

QvRepoAddInfo::QvRepoAddInfo(const char* path) {
    std::vector<QvRepoPackageItem> items;
    if (const int status = T::readSjaContents(path, items); status != 0)
        throw status;
    if (const int status = getPackageAttributesFromFilePath(path); status != 0)
        throw status;
    packageItems = items;
}

int QvRepoAddInfo::getPackageAttributesFromFilePath(const char* path) {
    const std::string file_name = base_name(path);
    if (file_name.empty()) {
        logmsgf(16, NAME_LABEL, "unable to extract filename from sja file path [%s].",
                path == nullptr ? "" : path);
        return STATUS_INVALID_PATH;
    }
    const std::size_t prefix_length = std::strlen(NAME_PREFIX);
    const bool has_prefix = file_name.compare(0, prefix_length, NAME_PREFIX) == 0;

    pkg_details details{};
    bounded_copy(details.name, sizeof details.name, file_name.c_str() + (has_prefix ? prefix_length : 0));
    if (const int error = extract_package_details_from_name(&details); error != 0)
        return refuse_name(error);

    packageFileName = file_name;
    packageName = file_name;
    os = get_package_os_string(details.os);
    version = details.versionText;
    packageType = get_package_type_string(details.type);
    return 0;
}

std::string QvRepoAddInfo::getJSONPackageDetails() {
    const JsonDocument body =
        own_json(json_pack("{s:{s:s,s:{s:s, s:s, s:s, s:s, s:s, s:o}}}", "data", "type",
                           "newPackageAttributes", "attributes", "packageFileName", packageFileName.c_str(),
                           "packageName", packageName.c_str(), "os", os.c_str(), "version", version.c_str(),
                           "packageType", packageType.c_str(), "packageItems", pack_items(packageItems)));
    const std::unique_ptr<char, Release<std::free>> text(body ? json_dumps(body.get(), 0) : nullptr);
    if (!text) {
        logmsgf(16, BODY_LABEL, "Package details of [%s] cannot be written as JSON.",
                packageFileName.c_str());
        return {};
    }
    logmsgf(4, BODY_LABEL, "Package details in JSON format: %s", text.get());
    return text.get();
}
