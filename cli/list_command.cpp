#include "cli/commands.h"
#include "cli/help.h"
#include "cli/message_buffers.h"
#include "cli/messages.h"
#include "cli/package_resource.h"
#include "cli/startup.h"
#include "model/QvRepoPackage.h"
#include "platform/debug_log.h"
#include "platform/status_codes.h"

#include <cstring>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

const std::array<ListFilter, 3> LIST_FILTERS = {
    {{"-version", "version"}, {"-os", "os"}, {"-type", "package-type"}}};

namespace {

constexpr const char* FUNCTION = "listPackagesCmd";

// The filter expression of the two arguments, the value as typed; empty when `option` is not a filter.
std::string filter_expression(const char* option, const char* value) {
    for (const ListFilter& filter : LIST_FILTERS)
        if (std::strcmp(option, filter.option) == 0)
            return std::string(filter.field) + "%20eq%20'" + value + "'";
    return {};
}

std::string packages_uri(const std::string& filter) {
    return filter.empty() ? PACKAGES_URI : std::string(PACKAGES_URI) + "?filter=" + filter;
}

// Level 2 for both failures below, not 16: main tells the user, the log only needs the detail.

int request_packages(QVClientCURL& client, const std::string& uri) {
    const int code = send_request(client, uri, CURL_REQUEST_GET, "", 200);
    if (code != 0)
        logmsgf(
            2, FUNCTION,
            "Failed to list deployment packages in the repository. Error code returned from curlSendRequest: %d.",
            code);
    return code;
}

int read_packages(const std::string& response, std::vector<QvRepoPackage>& packages) {
    const int status = QvRepoPackage::parseJSONResponsePackageArray(response, packages);
    if (status != 0)
        logmsgf(
            2, FUNCTION,
            "Failed to list deployment packages in the repository. Error code returned from parseJSONResponsePackageArray: %d.",
            status);
    return status;
}

int fetch_packages(QVClientCURL& client, const std::string& uri, std::vector<QvRepoPackage>& packages) {
    if (const int status = request_packages(client, uri); status != 0)
        return status;
    if (const int status = read_packages(client.responseBody, packages); status != 0)
        return status;
    logmsg(4, "Successfully retrieved deployment package list from the repository.", FUNCTION);
    return 0;
}

void report_empty_repository(std::ostream& out) {
    out << user_and_english_text("TqlRpo0028N") << std::endl;
    logmsg(4, msg_E, FUNCTION);
}

} // namespace

int listPackagesCmd(int argc, const char** argv, std::ostream& out) {
    const std::string filter = argc == 2 ? filter_expression(argv[0], argv[1]) : std::string();
    if (filter.empty() && argc != 0) {
        showHelp(out);
        return STATUS_INVALID_PARAMETER;
    }
    std::string masterServer;
    if (const int status = initialize(masterServer); status != 0)
        return status;
    const std::string uri = packages_uri(filter);
    if (!repository_exists(FUNCTION))
        return STATUS_NO_REPOSITORY;
    QVClientCURL client = master_server_client(masterServer);
    std::vector<QvRepoPackage> packages;
    if (const int status = fetch_packages(client, uri, packages); status != 0)
        return status;
    if (packages.empty())
        report_empty_repository(out);
    QvRepoPackage::printPackageList(std::move(packages), out);
    return 0;
}
