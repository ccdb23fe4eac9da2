// TLS, step by step: our authority, our certificate and key, and a handshake with the service.

#ifndef CHECK_TLS_CHECK_H
#define CHECK_TLS_CHECK_H

#include "platform/file_descriptor.h"

#include <string>

struct TlsFacts {
    std::string problem; // in OpenSSL's or the system's words; empty where there is none
    long days_left = 0;  // of the certificate that ends first
    std::string protocol = {};
};

// The certificates in the file of our authority.
TlsFacts look_at_authority();

// Our certificate and key: there, of one pair, valid now.
TlsFacts look_at_host_pair();

// Connects to the first address of `host` that answers. Returns 0 or an errno.
int connect_to(const std::string& host, FileDescriptor& connection);

// Does the handshake that the web-service client does, and judges its chain and name.
TlsFacts handshake(const FileDescriptor& connection, const std::string& host);

#endif
