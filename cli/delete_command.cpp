#include "cli/commands.h"
#include "cli/help.h"
#include "cli/message_buffers.h"
#include "cli/messages.h"
#include "cli/package_id.h"
#include "cli/package_resource.h"
#include "cli/request.h"
#include "cli/startup.h"
#include "model/QvRepoPackage.h"
#include "platform/debug_log.h"
#include "platform/interruption.h"
#include "platform/status_codes.h"
#include "seam/T.h"

#include <ostream>
#include <string>
#include <vector>

namespace {

constexpr const char* FUNCTION = "deletePackageCmd";

int fetch_package(QVClientCURL& client, const std::string& uri, const char* typedId) {
    const int code = send_request(client, uri, CURL_REQUEST_GET, "", 200);
    if (code == 0)
        return 0;
    logmsgf(
        16, FUNCTION,
        "Failed to retrieve deployment package in the repository. Error code returned from curlSendRequest: %d.",
        code);
    return package_request_status(code, typedId, FUNCTION);
}

int read_item_paths(const std::string& response, std::vector<std::string>& paths) {
    try {
        const QvRepoPackage package(response);
        logmsg(4, "Successfully retrieved deployment package details from the repository.", FUNCTION);
        paths = package.packageItemFilePaths;
        return 0;
    } catch (int status) {
        logmsgf(
            16, FUNCTION,
            "Failed to retrieve deployment package in the repository. Error code returned from QvRepoPackage: %d.",
            status);
        return status;
    }
}

bool confirmed(const std::string& id, std::ostream& out, std::istream& in) {
    user_and_english_text("TqlRpo0036N");
    // The English text, not the user's: scripts that answer the prompt wait for it.
    return T::confirmAction(msg_E + id + " [y/n]? (n) ", out, in) != 0;
}

int delete_metadata(QVClientCURL& client, const std::string& uri, const char* typedId) {
    const int code = send_request(client, uri, CURL_REQUEST_DELETE, "", 204);
    if (code != 0) {
        logmsgf(
            2, FUNCTION,
            "Failed to delete deployment package ID: %s from the repository. Error code returned from curlSendRequest: %d. ",
            typedId, code);
        return code;
    }
    // Always package 0, whatever the ID: kept, log readers match this line as it is.
    logmsgf(2, FUNCTION, "Successfully deleted package %d metadata.", 0);
    return 0;
}

void report_success(const char* typedId, std::ostream& out) {
    out << user_and_english_text("TqlRpo0027N", typedId) << std::endl;
    logmsg(4, msg_E, FUNCTION);
}

} // namespace

int deletePackageCmd(int argc, const char** argv, std::ostream& out, std::istream& in) {
    if (argc != 1) {
        showHelp(out);
        return STATUS_INVALID_PARAMETER;
    }
    const char* typedId = argv[0];
    std::string masterServer;
    if (const int status = initialize(masterServer); status != 0)
        return status;
    if (!repository_exists(FUNCTION))
        return STATUS_NO_REPOSITORY;
    std::string id;
    if (!validatePackageId(typedId, id))
        return STATUS_INVALID_PACKAGE_ID;

    const std::string uri = package_uri(id);
    QVClientCURL client = master_server_client(masterServer);
    if (const int status = fetch_package(client, uri, typedId); status != 0)
        return status;
    std::vector<std::string> itemPaths;
    if (const int status = read_item_paths(client.responseBody, itemPaths); status != 0)
        return status;

    if (!confirmed(id, out, in)) {
        logmsgf(4, FUNCTION, "qvrepo operation aborted. Package ID [%s] has not been deleted.", typedId);
        return STATUS_DELETE_CANCELED;
    }
    // From here on a signal takes effect after the files are deleted, too.
    const DeferredSignals deferred;
    if (const int status = delete_metadata(client, uri, typedId); status != 0)
        return status;
    // The registration is gone, so files that stay do not make the deletion a failure.
    if (T::deletePackageItems(itemPaths) == 0)
        logmsg(
            16,
            "Package metadata has been deleted, but one or more package file items have not been deleted. ",
            FUNCTION);
    report_success(typedId, out);
    return 0;
}
