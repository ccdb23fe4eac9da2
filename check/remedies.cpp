#include "check/remedies.h"

#include "check/text.h"
#include "model/package_service.h"
#include "platform/paths.h"

#include <cstdio>

namespace {

constexpr mode_t OTHERS_WRITE = S_IWGRP | S_IWOTH;

// An ID as the last part of a URL.
std::string percent_encoded(const std::string& id) {
    std::string encoded;
    for (const char c : id) {
        char code[4];
        static_cast<void>(std::snprintf(code, sizeof code, "%%%02X", static_cast<unsigned char>(c)));
        encoded += (c >= '0' && c <= '9') ? std::string(1, c) : std::string(code);
    }
    return encoded;
}

} // namespace

std::string deletion(const std::string& id) {
    return "qvrepo -delete " + shell_word(id);
}

std::string unregistration(const std::string& id, const std::string& master_server) {
    const std::string host =
        master_server.find(':') == std::string::npos ? master_server : "[" + master_server + "]";
    const std::string url = "https://" + host + ":" + std::to_string(WEB_SERVICE_PORT) + "/" + PACKAGES_URI +
                            "/" + percent_encoded(id);
    return std::string("curl -sS --fail --globoff --cacert ") + TLS_AUTHORITY_FILE + " --cert " +
           TLS_HOST_CERTIFICATE_FILE + " --key " + TLS_HOST_KEY_FILE + " -H " +
           shell_word("Accept: " + QV_MEDIA_TYPE_VERSION) + " -X DELETE " + shell_word(url);
}

std::string removal_of_file(const std::string& path) {
    return "rm -- " + shell_word(path);
}

std::string moving_away(const std::string& path) {
    return "mv -T -- " + shell_word(path) + " " + shell_word(path + ".moved");
}

std::string tightening(const std::string& path, const struct stat& status) {
    const std::string chown = status.st_uid != 0 ? "chown root:root -- " + shell_word(path) : "";
    const std::string chmod = (status.st_mode & OTHERS_WRITE) != 0 ? "chmod go-w -- " + shell_word(path) : "";
    return chown.empty() || chmod.empty() ? chown + chmod : chown + " && " + chmod;
}

std::string mode_text(mode_t mode) {
    char text[8];
    static_cast<void>(std::snprintf(text, sizeof text, "%04o", mode & 07777U));
    return text;
}
