#include "cli/package_resource.h"

#include "platform/debug_log.h"
#include "platform/paths.h"
#include "platform/status_codes.h"
#include "seam/T.h"

namespace {

// The service's own error codes.
constexpr int SERVICE_UNKNOWN_PACKAGE = 227;
constexpr int SERVICE_MALFORMED_ID = 8626;

} // namespace

std::string package_uri(const std::string& id) {
    return std::string(PACKAGES_URI) + "/" + id;
}

int send_request(QVClientCURL& client, const std::string& uri, curl_request_type type,
                 const std::string& body, long expectedHttpCode) {
    return curlSendRequest(client, uri, type, body, client.responseBody, expectedHttpCode);
}

bool repository_exists(const char* function) {
    if (T::pathExists(REPOSITORY_DIRECTORY))
        return true;
    logmsgf(16, function, "Package repository location does not exist: [%s].", REPOSITORY_DIRECTORY);
    return false;
}

int package_request_status(int code, const char* typedId, const char* function) {
    if (code == SERVICE_UNKNOWN_PACKAGE) {
        logmsgf(16, function, "Package ID [%s] does not exist in the repository.", typedId);
        return STATUS_PACKAGE_NOT_FOUND;
    }
    if (code == SERVICE_MALFORMED_ID) {
        logmsgf(16, function, "[%s] is not a valid package ID.", typedId);
        return STATUS_INVALID_PACKAGE_ID;
    }
    return code;
}
