// Keys that OpenSSL's providers find at URIs.

#ifndef PUBLISHER_KEY_STORE_H
#define PUBLISHER_KEY_STORE_H

#include "publisher/key_uri.h"
#include "publisher/rsa_key.h"

#include <optional>
#include <string>

// Whether a provider finds keys at URIs of `scheme`. For "pkcs11" the provider of that name is loaded where
// it is installed, and stays loaded; for others OpenSSL's configuration says which providers there are.
bool has_key_store(const std::string& scheme);

// Reads the half of a key pair at `uri`, which may name a regular file ("file:"). `passphrase` may be null.
// Throws a Refusal when it cannot be read, when it lacks a passphrase or has another one, when there is no
// such key, and when there are several.
pkey_ptr read_key_from_store(const KeyUri& uri, KeyHalf half, const Passphrase* passphrase);

// Which key the file at `path` holds, in any form that a "file:" URI may lead to: a private key (or one that
// is encrypted), else a public key, else none. An archive holds none, whatever its files are.
std::optional<KeyHalf> key_in_file(const std::string& path);

#endif
