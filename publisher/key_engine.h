// Keys in devices, as OpenSSL's engine for PKCS #11 finds them.

#ifndef PUBLISHER_KEY_ENGINE_H
#define PUBLISHER_KEY_ENGINE_H

#include "publisher/key_uri.h"
#include "publisher/rsa_key.h"

#include <memory>

// The half of a key pair at `uri`, of the scheme "pkcs11". A private key stays in its device: what is
// returned signs there. `pin` may be null; it is given to the device once for a session, and again for each
// signature with a key that asks for that.
//
// Throws a Refusal when there is no engine, when no token has the key, and when the PIN is missing or wrong.
pkey_ptr read_key_from_engine(const KeyUri& uri, KeyHalf half, std::shared_ptr<const Passphrase> pin);

#endif
