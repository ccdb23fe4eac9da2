// The installed package-signing key.

#ifndef CHECK_SIGNING_KEY_H
#define CHECK_SIGNING_KEY_H

#include "platform/paths.h"

#include <string>

inline constexpr const char* SIGNING_KEY_FILE = QV_PRODUCT_ROOT "/var/global/dunmarel/pubkey.pem";

struct SigningKey {
    std::string problem;     // empty for a key of the right kind, RSA of 4096 bits
    std::string fingerprint; // SHA-256 of the public key in DER, hexadecimal
};

SigningKey read_signing_key();

#endif
