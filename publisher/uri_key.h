// Keys at URIs.

#ifndef PUBLISHER_URI_KEY_H
#define PUBLISHER_URI_KEY_H

#include "publisher/key_uri.h"
#include "publisher/rsa_key.h"

// Reads the half of an RSA key pair of 4096 bits at `uri`, with `passphrase`, which may be null, or the PIN
// in the file that the URI names: from OpenSSL's providers where one of them serves the scheme, else, for
// "pkcs11", through the engine. Throws a Refusal that says what is missing.
pkey_ptr read_key(const KeyUri& uri, KeyHalf half, std::shared_ptr<const Passphrase> passphrase = nullptr);

#endif
