// Keys at URIs and in files, wherever OpenSSL finds them.

#ifndef PUBLISHER_KEY_STORE_H
#define PUBLISHER_KEY_STORE_H

#include "publisher/key_uri.h"
#include "publisher/passphrase.h"

#include <optional>
#include <string>

// Reads the half of a key pair at `uri`, with `passphrase`, which may be null, or with the PIN in the file that
// the URI names: from a regular file ("file:") or from OpenSSL's providers where one of them serves the scheme,
// else, for "pkcs11", through the engine. A private key stays in its device: what is returned signs there. The
// device gets the PIN once for a session, and again for each signature with a key that asks for it.
//
// Throws a UserError when nothing serves the scheme, when the key or the file of the PIN cannot be read, when
// the passphrase is missing or wrong, when no token has the key, and when there are several. Null when a file or a
// provider has no such key.
KeyHandle read_stored_key(const KeyUri& uri, KeyHalf half, PassphraseHandle passphrase);

// Which key the file at `path` holds, in any form that a "file:" URI may lead to: a private key (an encrypted
// one, too), else a public key, else none. An archive holds none, whatever its entries are.
std::optional<KeyHalf> key_in_file(const std::string& path);

#endif
