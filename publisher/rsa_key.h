// The key pairs that packages are signed with: RSA, 4096 bits, in PEM files.

#ifndef PUBLISHER_RSA_KEY_H
#define PUBLISHER_RSA_KEY_H

#include "publisher/output_file.h"
#include "publisher/passphrase.h"

#include <memory>
#include <string>

#include <openssl/evp.h>

// A key in a device goes before the connection to that device, which it keeps; other keys keep nothing.
struct release_pkey {
    std::shared_ptr<const void> connection;

    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using pkey_ptr = std::unique_ptr<EVP_PKEY, release_pkey>;

// A new RSA key pair of 4096 bits.
pkey_ptr generate_key();

// Writes the private half to `file` in PEM (PKCS #8), encrypted when `passphrase` is not null.
void write_private_key(OutputFile& file, EVP_PKEY* key, const Passphrase* passphrase);

// Writes the public half to `file` in PEM ("PUBLIC KEY").
void write_public_key(OutputFile& file, EVP_PKEY* key);

// Throws a Refusal, which calls the key by `name`, unless it is an RSA key of 4096 bits.
void check_key_kind(const std::string& name, const EVP_PKEY* key);

// Reads a private RSA key of 4096 bits. `passphrase` may be null for a key that is not encrypted. Throws a
// Refusal that says what the file lacks.
pkey_ptr read_private_key(const std::string& path, const Passphrase* passphrase);

// Throws a Refusal unless the file `path` holds a public RSA key of 4096 bits.
void check_public_key(const std::string& path);

#endif
