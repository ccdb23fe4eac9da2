#include "check/package_list.h"

#include "check/json_output.h"
#include "check/text.h"
#include "model/json_document.h"
#include "model/package_service.h"
#include "platform/admin.h"
#include "platform/master_config.h"
#include "platform/paths.h"

#include <iostream>

#include <curl/curl.h>

namespace {

constexpr Message NOT_ROOT = {"TqlChk0020N", "must be administrator."};
constexpr Message NO_CONFIGURATION = {"TqlChk0021N", "%s names no master server."};
constexpr Message OTHER_MACHINE = {"TqlChk0022N", "this machine is not the master server %s."};
constexpr Message NO_LIST = {"TqlChk0023N", "the service at %s gave no list of packages: %s"};

// What the service says instead of a list.
std::string refusal(const QVClientCURL& client) {
    std::string reason = "HTTP " + std::to_string(client.httpResponseCode);
    const JsonDocument body = parse_json(client.responseBody.c_str());
    const json_t* code = json_object_get(body.get(), "errorCode");
    const char* message = json_string_value(json_object_get(body.get(), "errorMessage"));
    if (json_is_integer(code))
        reason += ", errorCode " + std::to_string(json_integer_value(code));
    return message != nullptr ? reason + ": " + message : reason;
}

} // namespace

std::string request_packages(const std::string& master_server, std::vector<QvRepoPackage>& packages) {
    QVClientCURL client = master_server_client(master_server);
    client.setupAcceptCurlOption("Accept: " + QV_MEDIA_TYPE_VERSION);
    client.setConnectTimeout(CONNECT_TIMEOUT_SECONDS);
    if (const int code = client.get(PACKAGES_URI); code != 0)
        return curl_easy_strerror(static_cast<CURLcode>(code)) + std::string(" [") + std::to_string(code) +
               "]";
    if (client.httpResponseCode != 200)
        return refusal(client);
    if (const int status = QvRepoPackage::parseJSONResponsePackageArray(client.responseBody, packages);
        status != 0)
        return "HTTP 200, not a list of packages [" + std::to_string(status) + "]";
    return {};
}

std::string this_master_server() {
    if (is_user_admin(USER_PERMISSION_ADMINISTRATOR) == 0)
        throw CannotCheck({&NOT_ROOT});
    if (QV_read_master_config() != 0 || get_master_config_ptr()->server_names == nullptr ||
        *get_master_config_ptr()->server_names[0] == '\0')
        throw CannotCheck({&NO_CONFIGURATION, {MASTER_CONFIG_FILE}});
    std::string name = get_master_config_ptr()->server_names[0];
    if (lunt_is_master_server("localhost") == 0)
        throw CannotCheck({&OTHER_MACHINE, {name}});
    return name;
}

std::vector<QvRepoPackage> list_packages(const std::string& master_server) {
    std::vector<QvRepoPackage> packages;
    if (const std::string reason = request_packages(master_server, packages); !reason.empty())
        throw CannotCheck({&NO_LIST, {master_server, reason}});
    return packages;
}

void print_package_list(const PackageFilter& filter, bool json) {
    const auto matches = [](const std::string& wanted, const std::string& value) {
        return wanted.empty() || wanted == value;
    };
    const std::vector<QvRepoPackage> packages = list_packages(this_master_server());
    if (json) {
        begin_document(std::cout);
        std::cout << ",\"packages\":[";
    }
    const char* separator = "";
    for (const QvRepoPackage& package : packages) {
        if (!matches(filter.type, package.packageType) || !matches(filter.os, package.os) ||
            !matches(filter.version, package.version))
            continue;
        if (json) {
            std::cout << separator;
            write_json(std::cout,
                       json_pack("{s:o, s:o, s:o, s:o, s:o}", "id", json_text(package.id), "fileName",
                                 json_text(package.packageFileName), "type", json_text(package.packageType),
                                 "version", json_text(package.version), "os", json_text(package.os)));
            separator = ",\n";
        } else {
            std::cout << escaped(package.id, true) << '\t' << escaped(package.packageFileName, true) << '\t'
                      << escaped(package.packageType, true) << '\t' << escaped(package.version, true) << '\t'
                      << escaped(package.os, true) << '\n';
        }
    }
    if (json)
        std::cout << "]}\n";
}
