// The web service on the network: HTTP/1.1 over TLS with client certificates. One thread serves all
// connections; a few others ask the service, which may wait for the disk.

#ifndef MASTER_HTTP_SERVER_H
#define MASTER_HTTP_SERVER_H

#include "master/access_log.h"
#include "master/service.h"

#include <functional>
#include <string>

struct HttpServerOptions {
    std::string tls;            // directory of ca.pem, master.pem and master.key: see set_up_tls
    std::string address = "::"; // a name or a number; this is every address of the machine, IPv4 and IPv6
    int port = 1556;            // 0 takes a free one
    int timeout = 10; // seconds that a client may be silent; the other time limits are multiples of it
};

// Listens, waiting up to the timeout for an address that this machine does not have yet; tells systemd and
// `ready` ("ADDRESS:PORT", an IPv6 address in brackets); and serves clients until SIGTERM or SIGINT, when it
// still answers the requests under way. SIGHUP reads the certificates and opens the access log again. Throws
// StartFailure. To be called once in a process.
void serve_http(const HttpServerOptions& options, Service& service, AccessLog& log,
                const std::function<void(const std::string&)>& ready);

#endif
