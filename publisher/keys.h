// The keys that packages are signed with: RSA, 4096 bits, named by a PEM file's path or by a URI.

#ifndef PUBLISHER_KEYS_H
#define PUBLISHER_KEYS_H

#include "publisher/passphrase.h"

#include <string>

struct KeyPairFiles {
    std::string private_path;
    std::string public_path;
    bool replace = false; // files that exist already
};

// Creates a key pair: the private half in PEM (PKCS #8), readable for its owner only from the first moment, and
// encrypted when there is a passphrase; the public half in PEM. Throws a UserError when a file exists already
// and is not to be replaced, when both are the same file or one is that with the passphrase, when the public
// one holds a private key, and when one cannot be written; all files are then as they were. A kill between the
// last two steps leaves a new public half, and of the private one the earlier file or none.
void create_key_pair(const KeyPairFiles& files, const PassphraseSource& source);

// Reads the private key for signing. Throws a UserError when it is not there or not an RSA key of 4096 bits,
// when its passphrase is missing or wrong, and when a URI that names a PIN comes with a passphrase.
KeyHandle read_private_key(const std::string& name, const PassphraseSource& source);

struct PublicKey {
    std::string name;                 // for messages
    std::shared_ptr<EVP_PKEY> handle; // in this process's memory: a device's key is not used there
};

// Reads the public key. Throws like read_private_key, and for a file that a master server would not read.
PublicKey read_public_key(const std::string& name);

// The local file that is read for the key of this name: that of the key or of its PIN; empty when there is none.
std::string local_file_of(const std::string& key_name);

#endif
