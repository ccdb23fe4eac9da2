#include "model/package_service.h"

// The vocabulary of the product's web-service clients, kept whole: the block is the same in each of them.
static const std::string FEDS_URI = "quorvelle/catalog/frontenddata";
static const std::string HOSTS_URI = "quorvelle/config/hosts";
static const std::string SECURITY_CREDS_URI = "quorvelle/security/credentials";
static const std::string PING_URI = "quorvelle/ping";
static const std::string PASSPHRASE_CONSTRAINTS_URI = "quorvelle/security/passphrase-constraints";
static const std::string MAX_VERSION = "6.0";
static const std::string VERSION_4 = "4.0";
static const std::string VERSION_5 = "5.0";
static const std::string VERSION_6 = "6.0";
static const std::string QV_MEDIA_TYPE_JSON = "application/vnd.quorvelle+json";
const std::string QV_MEDIA_TYPE_VERSION = QV_MEDIA_TYPE_JSON + ";version=" + MAX_VERSION;
static const std::string QV_MEDIA_TYPE_OCTET_STREAM = "application/vnd.quorvelle+octet-stream";
static const std::string QV_MEDIA_TYPE_VERSION_OCTET_STREAM =
    QV_MEDIA_TYPE_OCTET_STREAM + ";version=" + MAX_VERSION;
static const std::string QV_API_VERSION_HEADER_STR = "X-Quorvelle-API-Version";
static const std::string QV_DEFAULT_MEDIA_TYPE = "application/json";
static const std::string QV_HEADER_X_CLIENT_ID = "X-Client-ID: ";
static const std::string QV_HEADER_X_CLIENT_ID_VALUE = "QV-CURL";

[[maybe_unused]] static const char* const lunt_proxy_hint_str[] = {
    "LUNT_PROXY_HINT_UNKNOWN",       "LUNT_PROXY_HINT_USE_PROXY",
    "LUNT_PROXY_HINT_USE_WHITELIST", "LUNT_PROXY_HINT_LOCALHOST_USER_VALIDATION",
    "LUNT_PROXY_HINT_DTE_CAPABLE",   nullptr};

namespace {

constexpr cert_type HOST_CERTIFICATE = 1;
constexpr QVCurlSessionType HOST_SESSION = 1;

} // namespace

QVClientCURL master_server_client(const std::string& masterServer) {
    return {masterServer,
            WEB_SERVICE_PORT,
            HOST_CERTIFICATE,
            HOST_SESSION,
            nullptr,
            "",
            true,
            false,
            false,
            "",
            "",
            "",
            "",
            "",
            "",
            false,
            false,
            "",
            0};
}
