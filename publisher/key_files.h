// Key files and passphrases as the command line names them.

#ifndef PUBLISHER_KEY_FILES_H
#define PUBLISHER_KEY_FILES_H

#include "publisher/rsa_key.h"

#include <string>

// Where a passphrase comes from: a file, the terminal, or, with neither, there is none.
struct PassphraseSource {
    std::string file;
    bool ask = false;
};

struct KeyPairFiles {
    std::string private_path;
    std::string public_path;
    bool replace = false; // files that are there already
};

// Makes a key pair, the private half encrypted when there is a passphrase. Throws a Refusal when one of the
// files is there already and not to be replaced, when both are the same file or one is that with the
// passphrase, when the public one holds a private key, and when one cannot be written; all files are then as
// they were. A kill between the last two steps leaves a new public half and an earlier private one, or none.
void make_key_pair(const KeyPairFiles& files, const PassphraseSource& source);

// Reads the private key for signing, named by a file's path or by a URI (see is_key_uri). Throws a Refusal
// when there is no RSA key of 4096 bits to be had, and when a URI that holds a PIN comes with a passphrase.
pkey_ptr signing_key(const std::string& name, const PassphraseSource& source);

// The local file that is read for the key of this name: the key's, or that of its PIN; empty where there is
// none.
std::string local_file(const std::string& key_name);

#endif
