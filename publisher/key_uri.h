// URIs that name keys: "pkcs11:token=publisher;object=signing", "file:/media/stick/signing.key".

#ifndef PUBLISHER_KEY_URI_H
#define PUBLISHER_KEY_URI_H

#include <string>

enum class KeyHalf { PRIVATE, PUBLIC };

// "private" or "public".
const char* name_of(KeyHalf half);

struct KeyUri {
    std::string scheme;   // in lower case
    std::string location; // the URI without a pin-source: for messages and for finding the key
    // The local file that the URI names: for "file:" the key, for "pkcs11:" that with the PIN (pin-source);
    // empty without one.
    std::string file;

    bool has_pin_file() const { return scheme == "pkcs11" && !file.empty(); }
};

// Whether `name` begins with a scheme: a letter, then letters, digits, "+", "-" or ".", and a colon. A file
// of such a name is reached as "./NAME".
bool is_key_uri(const std::string& name);

// Parses `text`, for which is_key_uri() holds. Throws a UserError for a file ("file:" is optional in a
// pin-source) whose path does not begin with "/", and for a second pin-source.
KeyUri parse_key_uri(const std::string& text);

// Throws a UserError when a "pkcs11:" URI names another type of object than the wanted half of a key.
void check_object_type(const KeyUri& uri, KeyHalf half);

// Whether `argument` holds a PIN: the attribute pin-value of a URI, however it is spelled. Other users see it
// in the list of processes, so no command accepts it and no message shows it.
bool contains_pin(const std::string& argument);

#endif
