// URIs that name keys: "pkcs11:token=publisher;object=signing", "file:/media/stick/signing.key".

#ifndef PUBLISHER_KEY_URI_H
#define PUBLISHER_KEY_URI_H

#include <string>

enum class KeyHalf { PRIVATE, PUBLIC };

// "private" or "public".
const char* name_of(KeyHalf half);

// Whether `name` begins with a scheme: a letter, then letters, digits, "+", "-" or ".", and a colon. A file
// of such a name is reached as "./NAME".
bool is_key_uri(const std::string& name);

// A URI taken apart.
struct KeyUri {
    std::string scheme;   // in lower case
    std::string location; // the URI for messages and for whoever finds the key, without a pin-source
    // The local file that the URI names: of "file:" the key, of "pkcs11:" that with the PIN (its pin-source);
    // empty where it names none.
    std::string file;

    bool names_pin_file() const { return scheme == "pkcs11" && !file.empty(); }
};

// Takes apart `text`, for which is_key_uri() holds. Throws a Refusal for a file whose path does not begin
// with
// "/" (after "file:", which a pin-source may leave out), for more than one pin-source, and for an escape in
// it that is none.
KeyUri parse_key_uri(const std::string& text);

// Whether `argument` holds a PIN: the attribute pin-value of a URI, however it is spelled. Other users see it
// in the list of processes, so nothing takes it, and no message shows it.
bool holds_pin(const std::string& argument);

// Throws a Refusal when a "pkcs11:" URI names another type of object than the wanted half of a key.
void check_object_type(const KeyUri& uri, KeyHalf half);

#endif
