#include "publisher/key_store.h"

#include "files/extractsja.h"
#include "publisher/openssl_error.h"
#include "publisher/passphrase_request.h"
#include "publisher/source_file.h"

#include <filesystem>
#include <memory>

#include <openssl/err.h>
#include <openssl/provider.h>
#include <openssl/store.h>

namespace {

// Larger files are no keys.
constexpr std::uintmax_t MAX_KEY_FILE_SIZE = 65536;

struct release_loader {
    void operator()(OSSL_STORE_LOADER* loader) const { OSSL_STORE_LOADER_free(loader); }
};
struct release_provider {
    void operator()(OSSL_PROVIDER* provider) const { OSSL_PROVIDER_unload(provider); }
};
struct release_store {
    void operator()(OSSL_STORE_CTX* store) const { OSSL_STORE_close(store); }
};
struct release_info {
    void operator()(OSSL_STORE_INFO* info) const { OSSL_STORE_INFO_free(info); }
};
struct release_bio {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
using bio_ptr = std::unique_ptr<BIO, release_bio>;
using store_ptr = std::unique_ptr<OSSL_STORE_CTX, release_store>;
using info_ptr = std::unique_ptr<OSSL_STORE_INFO, release_info>;

bool is_served(const std::string& scheme) {
    const std::unique_ptr<OSSL_STORE_LOADER, release_loader> loader(
        OSSL_STORE_LOADER_fetch(nullptr, scheme.c_str(), nullptr));
    ERR_clear_error();
    return loader != nullptr;
}

// For the rest of the process: keys from a provider work no longer than the provider.
void load_pkcs11_provider() {
    static const std::unique_ptr<OSSL_PROVIDER, release_provider> provider(
        OSSL_PROVIDER_try_load(nullptr, "pkcs11", 1));
}

// A system call's error in OpenSSL's queue, which is emptied; 0 when there is none.
int system_error() {
    int error = 0;
    while (const unsigned long code = ERR_get_error())
        if (error == 0 && ERR_SYSTEM_ERROR(code))
            error = ERR_GET_REASON(code);
    return error;
}

Refusal nothing_found(const KeyUri& uri, KeyHalf half, const PassphraseRequest& request) {
    const int error = system_error();
    if (request.made)
        return passphrase_refusal(uri.location, request);
    if (error != 0)
        return Refusal("cannot read " + uri.location, error);
    return Refusal(uri.location + " holds no " + name_of(half) + " key");
}

pkey_ptr key_in(OSSL_STORE_INFO* info, KeyHalf half) {
    return pkey_ptr(half == KeyHalf::PRIVATE ? OSSL_STORE_INFO_get1_PKEY(info)
                                             : OSSL_STORE_INFO_get1_PUBKEY(info));
}

// The file at `path` as a store with what OpenSSL recognizes in it. `file` is kept open for it.
store_ptr open_file(const std::string& path, const std::string& name, bio_ptr& file, const UI_METHOD* ask,
                    PassphraseRequest& request) {
    struct stat status = {};
    file.reset(BIO_new_fp(open_stream(path, status, name).release(), BIO_CLOSE));
    check_openssl(file != nullptr);
    return store_ptr(
        OSSL_STORE_attach(file.get(), "file", nullptr, nullptr, ask, &request, nullptr, nullptr, nullptr));
}

// The only key of the wanted kind; null when there is none.
pkey_ptr only_key(OSSL_STORE_CTX* store, const KeyUri& uri, KeyHalf half) {
    const int wanted = half == KeyHalf::PRIVATE ? OSSL_STORE_INFO_PKEY : OSSL_STORE_INFO_PUBKEY;
    // Spares devices a search. A file, OpenSSL would not read past what is not expected.
    if (uri.scheme != "file")
        check_openssl(OSSL_STORE_expect(store, wanted) == 1);
    pkey_ptr key;
    while (OSSL_STORE_eof(store) == 0) {
        const info_ptr info(OSSL_STORE_load(store));
        if (!info && OSSL_STORE_error(store) != 0)
            break;
        // What is not expected comes all the same where a provider does not sort its objects.
        if (!info || OSSL_STORE_INFO_get_type(info.get()) != wanted)
            continue;
        if (key)
            throw Refusal(uri.location + " holds more than one " + name_of(half) + " key");
        key = key_in(info.get(), half);
    }
    return key;
}

} // namespace

bool has_key_store(const std::string& scheme) {
    if (!is_served(scheme) && scheme == "pkcs11")
        load_pkcs11_provider();
    return is_served(scheme);
}

pkey_ptr read_key_from_store(const KeyUri& uri, KeyHalf half, const Passphrase* passphrase) {
    PassphraseRequest request = {passphrase};
    const ui_method_ptr ask = passphrase_method();
    bio_ptr file;
    const store_ptr store =
        uri.scheme == "file"
            ? open_file(uri.file, uri.location, file, ask.get(), request)
            : store_ptr(OSSL_STORE_open(uri.location.c_str(), ask.get(), &request, nullptr, nullptr));
    pkey_ptr key;
    if (store)
        key = only_key(store.get(), uri, half);
    if (!key)
        throw nothing_found(uri, half, request);
    ERR_clear_error();
    return key;
}

std::optional<KeyHalf> key_in_file(const std::string& path) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error) ||
        std::filesystem::file_size(path) > MAX_KEY_FILE_SIZE)
        return std::nullopt;
    struct stat status = {};
    if (verify_jank_archive(open_stream(path, status).get()) != 2)
        return std::nullopt;
    PassphraseRequest request = {nullptr};
    const ui_method_ptr ask = passphrase_method();
    bio_ptr file;
    const store_ptr store = open_file(path, path, file, ask.get(), request);
    std::optional<KeyHalf> found;
    while (store && OSSL_STORE_eof(store.get()) == 0) {
        const info_ptr info(OSSL_STORE_load(store.get()));
        if (!info && OSSL_STORE_error(store.get()) != 0)
            break;
        const int type = info ? OSSL_STORE_INFO_get_type(info.get()) : 0;
        if (type == OSSL_STORE_INFO_PUBKEY && !found)
            found = KeyHalf::PUBLIC;
        if (type == OSSL_STORE_INFO_PKEY)
            found = KeyHalf::PRIVATE;
    }
    ERR_clear_error();
    return request.made ? KeyHalf::PRIVATE : found;
}
