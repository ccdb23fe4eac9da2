#include "model/QvRepoPackage.h"

#include "model/json_document.h"
#include "model/package_elements.h"
#include "platform/debug_log.h"
#include "platform/file_ops.h"
#include "platform/status_codes.h"

#include <array>
#include <utility>

namespace {

// The longest name of an EEB package; the product's other tools keep it in a field of this size.
constexpr std::size_t MAX_EEB_NAME = 128;

// These two labels are not the functions' own names; log readers know them by these.
constexpr const char* DETAILS_LABEL = "QvRepoPackage::parseJSONResponsePackageDetails";
constexpr const char* LIST_LABEL = "QvRepoPackage::parseJSONResponsePackage";

constexpr const char* NO_PACKAGE_ITEMS = "No package items in response.";

// Returns what there is to log, empty on success.
std::string append_item_paths(const json_t* items, std::vector<std::string>& paths) {
    if (!json_is_array(items))
        return NO_PACKAGE_ITEMS;
    for (std::size_t i = 0; i < json_array_size(items); ++i) {
        const json_t* path = json_array_get(items, i);
        if (path == nullptr)
            break;
        if (!json_is_string(path))
            return NO_PACKAGE_ITEMS;
        paths.emplace_back(json_string_value(path));
    }
    return {};
}

bool is_eeb(const std::string& type) {
    return type == "qveeb" || type == "qveeb.client" || type == "qveeb.server";
}

// The first three "_"-separated parts of an EEB package's name, which alone identify it; empty where the name
// has fewer. Neighbouring and leading underscores count as one separator and none.
std::string eeb_installable(const std::string& name) {
    std::string installable;
    std::size_t end = 0;
    for (int part = 0; part < 3; ++part) {
        const std::size_t begin = name.find_first_not_of('_', end);
        if (begin == std::string::npos)
            return {};
        end = std::min(name.find('_', begin), name.length());
        installable += (part == 0 ? "" : "_") + name.substr(begin, end - begin);
    }
    return installable;
}

int refuse_details(const std::string& problem) {
    logmsg(16, problem.c_str(), DETAILS_LABEL);
    return STATUS_UNEXPECTED_RESPONSE;
}

void log_unreadable_details(int status) {
    logmsgf(
        16, "QvRepoPackage",
        "Error reading package details in response. Error code returned from parseJSONpackageDetails: %d.",
        status);
}

} // namespace

QvRepoPackage::QvRepoPackage(json_t* package) {
    const int status = parseJSONpackageDetails(package);
    if (status != 0) {
        log_unreadable_details(status);
        throw status;
    }
}

QvRepoPackage::QvRepoPackage(const std::string& response) {
    json_error_t error;
    const JsonDocument document = parse_json(response.c_str(), 0, &error);
    if (!document) {
        logmsgf(16, "QvRepoPackage",
                "Failed to parse package details from response received from server. Error: %s.", error.text);
        throw STATUS_UNEXPECTED_RESPONSE;
    }
    json_t* package = json_object_get(document.get(), "data");
    if (!json_is_object(package)) {
        logmsg(16, "No data in response.", "QvRepoPackage");
        throw STATUS_UNEXPECTED_RESPONSE;
    }
    const int status = parseJSONpackageDetails(package);
    if (status != 0) {
        log_unreadable_details(status);
        throw STATUS_UNEXPECTED_RESPONSE;
    }
}

int QvRepoPackage::parseJSONpackageDetails(json_t* package) {
    const std::string problem = fill(package);
    return problem.empty() ? 0 : refuse_details(problem);
}

std::string QvRepoPackage::fill(json_t* package) {
    const char *id_text, *name, *file_name, *type, *os_text, *version_text, *created, *modified, *validated;
    json_t* items = nullptr;
    json_int_t bytes = 0;
    json_error_t error;
    if (json_unpack_ex(package, &error, 0, "{s:s, s:{s:s, s:s, s:o, s:s, s:s, s:s, s:I, s:s, s:s, s:s }}",
                       "id", &id_text, "attributes", "packageName", &name, "packageFileName", &file_name,
                       "packageItemFilePaths", &items, "packageType", &type, "os", &os_text, "version",
                       &version_text, "size", &bytes, "createdDateTimeUTC", &created,
                       "lastModifiedDateTimeUTC", &modified, "lastValidatedUTC", &validated) != 0)
        return std::string("Error parsing response: ") + error.text;
    if (std::string problem = append_item_paths(items, packageItemFilePaths); !problem.empty())
        return problem;

    id = id_text;
    packageName = name;
    packageFileName = file_name;
    packageType = type;
    os = os_text;
    version = version_text;
    size = static_cast<std::uint64_t>(bytes);
    createdDateTimeUTC = created;
    lastModifiedDateTimeUTC = modified;
    lastValidatedUTC = validated;
    return deriveInstallables();
}

std::string QvRepoPackage::deriveInstallables() {
    if (packageType == "qv") {
        installables = {"qvclient_" + version, "qvserver_" + version};
    } else if (packageType == "maint.qv") {
        installables = {"maint.qvclient_" + version, "maint.qvserver_" + version};
    } else if (!is_eeb(packageType)) {
        installables = {packageType + "_" + version};
    } else {
        const std::string installable =
            packageName.length() <= MAX_EEB_NAME ? eeb_installable(packageName) : std::string();
        if (installable.empty())
            return "Error parsing response: [" + packageName + "] is not the name of an EEB package.";
        installables = {installable};
    }
    return {};
}

// What is wrong with the first element of a list that is not a package.
struct QvRepoPackage::ListProblem {
    bool found = false;
    std::string text; // of a record that cannot be built; empty for an element that is not an object
};

QvRepoPackage::ListProblem QvRepoPackage::append(json_t* element, std::vector<QvRepoPackage>& packages) {
    if (!json_is_object(element))
        return {true, {}};
    QvRepoPackage package;
    std::string text = package.fill(element);
    if (!text.empty())
        return {true, std::move(text)};
    packages.push_back(std::move(package));
    return {};
}

int QvRepoPackage::refuseList(const ListProblem& problem) {
    if (problem.text.empty()) {
        logmsg(16, "No package details in response.", LIST_LABEL);
        return STATUS_UNEXPECTED_RESPONSE;
    }
    const int status = refuse_details(problem.text);
    log_unreadable_details(status);
    logmsgf(16, LIST_LABEL, "Error reading package details in response. Error code: %d.", status);
    return status;
}

bool QvRepoPackage::appendInPieces(const std::string& response, std::vector<QvRepoPackage>& packages,
                                   ListProblem& problem) {
    const std::size_t before = packages.size();
    PackageElements elements(response);
    // The walk goes on after a wrong element: an answer that is not JSON is refused as such, wherever it breaks
    // off.
    while (const JsonDocument element = elements.next())
        if (!problem.found)
            problem = append(element.get(), packages);
    if (!elements.complete()) {
        packages.resize(before);
        problem = {};
    }
    return elements.complete();
}

int QvRepoPackage::appendWhole(const std::string& response, std::vector<QvRepoPackage>& packages,
                               ListProblem& problem) {
    const JsonDocument document = parse_json(response.c_str());
    if (!document) {
        logmsgf(16, LIST_LABEL,
                "Failed to parse package details from response received from server and the response is: %s.",
                response.c_str());
        return STATUS_UNEXPECTED_RESPONSE;
    }
    const json_t* data = json_object_get(document.get(), "data");
    if (!json_is_array(data)) {
        logmsg(16, "No data in response.", LIST_LABEL);
        return STATUS_UNEXPECTED_RESPONSE;
    }
    for (std::size_t i = 0; i < json_array_size(data) && !problem.found; ++i)
        problem = append(json_array_get(data, i), packages);
    return 0;
}

int QvRepoPackage::parseJSONResponsePackageArray(const std::string& response,
                                                 std::vector<QvRepoPackage>& packages) {
    ListProblem problem;
    if (!appendInPieces(response, packages, problem))
        if (const int status = appendWhole(response, packages, problem); status != 0)
            return status;
    return problem.found ? refuseList(problem) : 0;
}

bool QvRepoPackage::isBundle() {
    if (packageItemFilePaths.size() == 1) {
        const std::string name = base_name(packageItemFilePaths.front().c_str());
        if (!name.empty() && packageFileName == name) {
            logmsgf(4, "QvRepoPackage::isBundle", "Package file [%s] is a single sja.",
                    packageFileName.c_str());
            return false;
        }
    }
    logmsgf(4, "QvRepoPackage::isBundle", "Package file [%s] is an sja envelope.", packageFileName.c_str());
    return true;
}
