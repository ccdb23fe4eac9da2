// URIs that name keys: "pkcs11:token=publisher;object=signing", "file:/media/stick/signing.key".

#ifndef PUBLISHER_KEY_URI_H
#define PUBLISHER_KEY_URI_H

#include "publisher/passphrase.h"

#include <memory>
#include <string>

enum class KeyHalf { PRIVATE, PUBLIC };

// "private" or "public".
const char* name_of(KeyHalf half);

// Whether `name` begins with a scheme: a letter, then letters, digits, "+", "-" or ".", and a colon. A file
// of such a name is reached as "./NAME".
bool is_key_uri(const std::string& name);

// A URI taken apart.
struct KeyUri {
    std::string scheme; // in lower case
    // The URI without a PIN, for messages and for whoever finds the key.
    std::string location;
    // The PIN or passphrase of the key: at first what a "pkcs11:" URI says about it, null where that is
    // nothing.
    std::shared_ptr<const Passphrase> pin;
};

// Takes apart `text`, for which is_key_uri() holds. The PIN is the attribute pin-value, or the first line of
// the file that pin-source names ("/path" or "file:/path"). Throws a Refusal for a pin-source that is no file
// or holds no PIN, for more than one PIN, and for an escape in either that is none.
KeyUri parse_key_uri(const std::string& text);

// Throws a Refusal when a "pkcs11:" URI names another type of object than the wanted half of a key.
void check_object_type(const KeyUri& uri, KeyHalf half);

#endif
