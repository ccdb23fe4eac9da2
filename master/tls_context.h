// TLS as the service demands it of its clients.

#ifndef MASTER_TLS_CONTEXT_H
#define MASTER_TLS_CONTEXT_H

#include <openssl/ssl.h>
#include <string>

// Makes `context` present master.pem with its key master.key, both in `directory`, and admit clients with a
// certificate of the authority in ca.pem, over TLS 1.2 or newer. Throws StartFailure, which names the file
// and why it cannot be used.
void set_up_tls(SSL_CTX& context, const std::string& directory);

#endif
