// Passphrases of private keys, and PINs of tokens.

#ifndef PUBLISHER_PASSPHRASE_H
#define PUBLISHER_PASSPHRASE_H

#include "publisher/openssl.h"

#include <array>
#include <cstddef>
#include <memory>
#include <string>

#include <openssl/ui.h>

// Text that is wiped from memory when its owner goes.
struct Passphrase {
    // OpenSSL's own tools accept no longer one, and have to be able to use the key.
    static constexpr std::size_t MAX_SIZE = 1023;

    Passphrase() = default;
    Passphrase(const Passphrase&) = delete;
    Passphrase& operator=(const Passphrase&) = delete;
    ~Passphrase();

    std::array<char, MAX_SIZE + 1> bytes = {};
    std::size_t size = 0;
};
using PassphraseHandle = std::shared_ptr<const Passphrase>;

// Where a passphrase comes from: a file, the terminal, or, with neither, there is none.
struct PassphraseSource {
    std::string file;
    bool ask = false;

    bool is_given() const { return ask || !file.empty(); }
};

// The first line of the file without its newline, or what is typed on the terminal, without being shown; twice
// when `confirm`. Null when the source is neither. Throws a UserError when the file cannot be read, without a
// terminal, when the two differ, and for a passphrase that is empty or too long.
PassphraseHandle read_passphrase(const PassphraseSource& source, bool confirm = false);

// What OpenSSL gets when it asks for the passphrase of a key.
struct PassphraseRequest {
    const Passphrase* passphrase; // null where there is none
    bool made = false;            // whether OpenSSL has asked

    // Why the key named `key` cannot be read after the request has been made.
    UserError error(const std::string& key) const;
};

// A callback of OpenSSL's type pem_password_cb; `request` is a PassphraseRequest. Without a callback, OpenSSL
// would ask on the terminal by itself.
int give_passphrase(char* buffer, int size, int writing, void* request);

// The same callback for where OpenSSL takes a user interface; its data is a PassphraseRequest.
using UiMethodHandle = Handle<UI_METHOD, &UI_destroy_method>;
UiMethodHandle passphrase_method();

#endif
