// Certificates of the tests' own making, written as PEM files.

#ifndef TESTS_UNIT_PLATFORM_CERTIFICATES_H
#define TESTS_UNIT_PLATFORM_CERTIFICATES_H

#include "platform/handle.h"

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

// A key with its certificate.
struct Identity {
    std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>> key;
    std::unique_ptr<X509, Release<X509_free>> certificate;
};

// An authority of that name.
Identity make_authority(const std::string& name);

// A certificate by `authority` for `name`; `alternatives` as OpenSSL writes them ("DNS:host,IP:127.0.0.1").
// It ends `days` days from now, which may lie in the past.
Identity make_identity(const Identity& authority, const std::string& name, const std::string& alternatives,
                       int days = 30);

void write_certificate(const std::string& path, const Identity& identity);

// With a passphrase the key is encrypted.
void write_key(const std::string& path, const Identity& identity, const std::string& passphrase = "");

#endif
