// Failures of OpenSSL that no input explains.

#ifndef PUBLISHER_OPENSSL_ERROR_H
#define PUBLISHER_OPENSSL_ERROR_H

#include "publisher/refusal.h"

#include <string>

#include <openssl/err.h>

// Throws a Refusal with OpenSSL's own reason unless `success`.
inline void check_openssl(bool success) {
    if (success)
        return;
    const char* reason = ERR_reason_error_string(ERR_get_error());
    throw Refusal(std::string("OpenSSL failed: ") + (reason != nullptr ? reason : "no reason given"));
}

#endif
