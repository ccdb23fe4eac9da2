// OpenSSL's handles and errors.

#ifndef PUBLISHER_OPENSSL_H
#define PUBLISHER_OPENSSL_H

#include "platform/handle.h"
#include "publisher/user_error.h"

#include <memory>
#include <string>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>

template <typename T, auto Function>
using Handle = std::unique_ptr<T, Release<Function>>;

using BioHandle = Handle<BIO, &BIO_free>;

// A key in a device is released before the connection to that device, which it keeps; other keys keep nothing.
struct ReleaseKey {
    std::shared_ptr<const void> connection;

    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using KeyHandle = std::unique_ptr<EVP_PKEY, ReleaseKey>;

// Throws a UserError with OpenSSL's own reason unless `success`: for failures that no input explains.
inline void check_openssl(bool success) {
    if (success)
        return;
    const char* reason = ERR_reason_error_string(ERR_get_error());
    throw UserError(std::string("OpenSSL failed: ") + (reason != nullptr ? reason : "no reason given"));
}

// Digests and signatures as OpenSSL takes them.
inline unsigned char* bytes_of(std::string& text) {
    return reinterpret_cast<unsigned char*>(text.data());
}

#endif
