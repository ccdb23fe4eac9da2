#include "publisher/key_store.h"

#include "publisher/openssl_error.h"
#include "publisher/passphrase_request.h"

#include <memory>

#include <openssl/err.h>
#include <openssl/provider.h>
#include <openssl/store.h>

namespace {

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
    const store_ptr store(OSSL_STORE_open(uri.location.c_str(), ask.get(), &request, nullptr, nullptr));
    pkey_ptr key;
    if (store)
        key = only_key(store.get(), uri, half);
    if (!key)
        throw nothing_found(uri, half, request);
    ERR_clear_error();
    return key;
}
