// Public keys, as the server's own signature check takes them.

#ifndef PUBLISHER_CHECKING_KEY_H
#define PUBLISHER_CHECKING_KEY_H

#include <memory>
#include <string>

#include <openssl/types.h>

struct release_checking_key {
    void operator()(RSA* key) const;
};

struct CheckingKey {
    std::string name; // for messages: without a PIN
    std::unique_ptr<RSA, release_checking_key> numbers;
};

// Reads the public RSA key of 4096 bits named by a file's path or by a URI (see is_key_uri). Throws a Refusal
// that says what is missing, also for a file that a master server would not read.
CheckingKey read_checking_key(const std::string& name);

#endif
