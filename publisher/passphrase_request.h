// How OpenSSL comes by the passphrase of a key that it reads.

#ifndef PUBLISHER_PASSPHRASE_REQUEST_H
#define PUBLISHER_PASSPHRASE_REQUEST_H

#include "publisher/passphrase.h"
#include "publisher/refusal.h"

#include <memory>
#include <string>

#include <openssl/ui.h>

struct PassphraseRequest {
    const Passphrase* passphrase; // null where there is none
    bool made = false;            // whether OpenSSL has asked
};

// A callback of OpenSSL's type pem_password_cb; `request` is a PassphraseRequest. Without a callback, OpenSSL
// would ask on the terminal by itself.
int give_passphrase(char* buffer, int size, int writing, void* request);

struct release_ui_method {
    void operator()(UI_METHOD* method) const { UI_destroy_method(method); }
};
using ui_method_ptr = std::unique_ptr<UI_METHOD, release_ui_method>;

// The same callback for where OpenSSL takes a user interface; its data is a PassphraseRequest.
ui_method_ptr passphrase_method();

// Why the key named `key` cannot be read after the request has been made.
Refusal passphrase_refusal(const std::string& key, const PassphraseRequest& request);

#endif
