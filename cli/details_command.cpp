#include "cli/commands.h"
#include "cli/help.h"
#include "cli/package_id.h"
#include "cli/package_resource.h"
#include "cli/startup.h"
#include "model/QvRepoPackage.h"
#include "platform/debug_log.h"
#include "platform/status_codes.h"

#include <ostream>
#include <string>

namespace {

constexpr const char* FUNCTION = "getPackageDetailsCmd";

int fetch_package(QVClientCURL& client, const std::string& id, const char* typedId) {
    const int code = send_request(client, package_uri(id), CURL_REQUEST_GET, "", 200);
    if (code == 0)
        return 0;
    logmsgf(
        2, FUNCTION,
        "Failed to retrieve deployment package in the repository. Error code returned from curlSendRequest: %d.",
        code);
    return package_request_status(code, typedId, FUNCTION);
}

int print_package(const std::string& response, std::ostream& out) {
    try {
        QvRepoPackage package(response);
        logmsg(4, "Successfully retrieved deployment package details from the repository.", FUNCTION);
        package.printPackageDetails(out);
        return 0;
    } catch (int status) {
        logmsgf(
            2, FUNCTION,
            "Failed to retrieve deployment package in the repository. Error code returned from QvRepoPackage: %d.",
            status);
        return status;
    }
}

} // namespace

int getPackageDetailsCmd(int argc, const char** argv, std::ostream& out) {
    if (argc != 1) {
        showHelp(out);
        return STATUS_INVALID_PARAMETER;
    }
    std::string masterServer;
    if (const int status = initialize(masterServer); status != 0)
        return status;
    if (!repository_exists(FUNCTION))
        return STATUS_NO_REPOSITORY;
    std::string id;
    if (!validatePackageId(argv[0], id))
        return STATUS_INVALID_PACKAGE_ID;
    QVClientCURL client = master_server_client(masterServer);
    if (const int status = fetch_package(client, id, argv[0]); status != 0)
        return status;
    return print_package(client.responseBody, out);
}
