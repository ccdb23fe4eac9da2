#include "cli/commands.h"
#include "cli/help.h"
#include "cli/message_buffers.h"
#include "cli/messages.h"
#include "cli/package_resource.h"
#include "cli/startup.h"
#include "model/QvRepoAddInfo.h"
#include "model/QvRepoPackage.h"
#include "platform/debug_log.h"
#include "platform/interruption.h"
#include "platform/status_codes.h"
#include "seam/T.h"

#include <ostream>
#include <string>

namespace {

constexpr const char* FUNCTION = "addPackagesCmd";

void announce(std::ostream& out) {
    out << user_text("TqlRpo0025N") << std::endl;
}

void report_success(const std::string& id, std::ostream& out) {
    out << user_and_english_text("TqlRpo0026N", id.c_str()) << std::endl;
    logmsg(4, msg_E, FUNCTION);
}

// The request body that registers the package file; 0 or a status.
int render_body(const char* path, std::string& body) {
    try {
        body = QvRepoAddInfo(path).getJSONPackageDetails();
        return 0;
    } catch (int status) {
        return status;
    }
}

int register_package(QVClientCURL& client, const std::string& body) {
    const int code = send_request(client, PACKAGES_URI, CURL_REQUEST_POST, body, 201);
    if (code != 0)
        logmsgf(16, FUNCTION,
                "Failed to add deployment package metadata. Error code returned from curlSendRequest: %d.",
                code);
    return code;
}

// Removes the registration after `status` kept the files from the repository.
void remove_stale_metadata(const std::string& masterServer, const std::string& id, int status) {
    // The wording is the same when a copy failed: other tools look for this line.
    logmsgf(
        16, FUNCTION,
        "Failed to extract deployment package items to the repository. Error code returned from QvRepoAddInfo:extractSja: %d.",
        status);
    logmsg(4, "Deleting the stale package metadata.", FUNCTION);
    // The clean-up deliberately expects 404: it logs any other answer, a plain success too, as a failure.
    QVClientCURL client = master_server_client(masterServer);
    const int code = send_request(client, package_uri(id), CURL_REQUEST_DELETE, "", 404);
    if (code != 0)
        logmsgf(
            16, FUNCTION,
            "Package was not added into the repository, but qvrepo failed to remove its metadata. Status code returned from curlSendRequest: %d.",
            code);
}

// Copies or extracts the registered package into the repository. `reached` receives the status of the last
// step that was completed, also when one throws.
int place_files(const char* path, const std::string& masterServer, const std::string& response, int& reached,
                std::ostream& out) {
    QvRepoPackage package(response);
    const std::string id = package.id;
    reached = package.isBundle() ? T::extractSja(path) : T::copySja(path);
    if (reached == 0)
        report_success(id, out);
    else
        remove_stale_metadata(masterServer, id, reached);
    return reached;
}

} // namespace

int addPackagesCmd(int argc, const char** argv, std::ostream& out) {
    if (argc != 1) {
        showHelp(out);
        return STATUS_INVALID_PARAMETER;
    }
    const char* path = argv[0];
    std::string masterServer;
    if (const int status = initialize(masterServer); status != 0)
        return status;
    if (!T::pathExists(path)) {
        logmsgf(16, FUNCTION, "Failed to read package content. Supplied .sja file [%s] does not exist.",
                path);
        return STATUS_FILE_NOT_FOUND;
    }
    announce(out);
    if (const int status = T::verifySja(path); status != 0)
        return status;
    std::string body;
    if (const int status = render_body(path, body); status != 0)
        return status;
    // From here on a signal takes effect after the files are in place or the registration is removed.
    const DeferredSignals deferred;
    QVClientCURL client = master_server_client(masterServer);
    if (const int status = register_package(client, body); status != 0)
        return status;
    int reached = 0;
    try {
        return place_files(path, masterServer, client.responseBody, reached, out);
    } catch (int status) {
        // The line says how far the command got, not what was thrown: main reports that.
        logmsgf(
            16, FUNCTION,
            "Failed to add deployment package to repository location. Error code returned from QvRepoPackage: %d. ",
            reached);
        return status;
    }
}
