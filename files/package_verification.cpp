// The signature check of one package file.

#include "files/QvRepoHelper.h"
#include "files/file_stream.h"
#include "files/sja_verify.h"
#include "platform/debug_log.h"
#include "platform/handle.h"
#include "platform/interruption.h"
#include "platform/paths.h"
#include "platform/status_codes.h"
#include "seam/T.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include <sys/stat.h>

namespace {

constexpr const char* FUNCTION = "QvRepoHelper::verifySja";

using PublicKeyPtr = std::unique_ptr<RSA, Release<free_pubkey>>;

PublicKeyPtr installed_key(const std::string& key_path) {
    if (!T::pathExists(key_path.c_str()))
        return nullptr;
    logmsgf(4, FUNCTION, "Trying to get Pubkey [%s]", key_path.c_str());
    return PublicKeyPtr(get_pubkey(key_path.c_str()));
}

std::string without_quotes(std::string path) {
    path.erase(std::remove(path.begin(), path.end(), '"'), path.end());
    return path;
}

int refuse_signature(const char* path) {
    // An interrupted check says nothing about the package.
    if (!interruption_noted())
        logmsgf(16, FUNCTION, "Signature invalid for SJA file [%s].", path);
    return STATUS_INVALID_SIGNATURE;
}

// Whether there is nothing at `path` that could be copied instead of the `verified` file, or what is there is
// signed, too. Callers copy the path with its quotes.
bool is_verified_too(const char* path, FILE* verified, RSA* key) {
    const BufferedStream archive(open_to_read(path));
    if (!archive)
        return errno == ENOENT || errno == ENOTDIR;
    struct stat file = {};
    return fstat(fileno(archive.get()), &file) == 0 &&
           (is_file_of(verified, file) || sja_verify_hash(archive.get(), key));
}

int verify_with_key(const char* path, RSA* key) {
    const std::string unquoted = without_quotes(path);
    logmsg(4, "Public key found. Proceeding with verification", FUNCTION);
    const BufferedStream archive(open_to_read(unquoted.c_str()));
    if (!archive) {
        logmsgf(16, FUNCTION, "Could not open SJA file at path [%s].", unquoted.c_str());
        return STATUS_UNREADABLE_PACKAGE;
    }
    if (!sja_verify_hash(archive.get(), key))
        return refuse_signature(unquoted.c_str());
    if (unquoted != path && !is_verified_too(path, archive.get(), key))
        return refuse_signature(path);
    logmsgf(4, FUNCTION, "Signature of SJA file [%s] is verified.", path);
    return 0;
}

} // namespace

int QvRepoHelper::verifySja(const char* path) {
    if (!T::pathExists(path)) {
        logmsgf(16, FUNCTION, "Failed to read package content. Supplied .sja file does not exist: [%s].",
                path);
        return STATUS_FILE_NOT_FOUND;
    }
    const std::string key_path = std::string(PACKAGE_KEY_DIRECTORY) + "/pubkey.pem";
    const PublicKeyPtr key = installed_key(key_path);
    if (!key) {
        logmsgf(16, FUNCTION, "Public key [%s] not found.", key_path.c_str());
        return STATUS_NO_PUBLIC_KEY;
    }
    return verify_with_key(path, key.get());
}
