// A small HTTPS server for tests: it keeps every request byte for byte, and answers byte for byte what a test
// says. It serves one connection after the other, so a client that wants another one has to close the first.

#ifndef TESTS_UNIT_PLATFORM_TLS_SERVER_H
#define TESTS_UNIT_PLATFORM_TLS_SERVER_H

#include "platform/file_descriptor.h"
#include "platform/handle.h"
#include "tests/unit/platform/certificates.h"

#include <openssl/ssl.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// A request as it came over the wire.
struct WireRequest {
    std::string head; // request line and header lines, with their line ends
    std::string body;
    std::string client_name; // the CN of the client's certificate; empty without one

    std::string line() const { return head.substr(0, head.find("\r\n")); }
    // The values of all headers of that name, in order (name in lower case).
    std::vector<std::string> headers(const std::string& name) const;
    // The value of the only header of that name; "(none)" or "(several)" otherwise.
    std::string header(const std::string& name) const;
};

// A whole HTTP answer with a Content-Length.
std::string answer(int code, const std::string& body, const std::string& headers = "");

struct TlsServerOptions {
    std::string address = "127.0.0.1";
    int port = 1556;
    int min_version = 0; // 0 for whatever OpenSSL speaks
    int max_version = 0;
    bool prefers_http2 = false; // which it does not understand
};

class TlsServer {
  public:
    using Options = TlsServerOptions;
    // The bytes that answer a request. The connection is closed after an answer with "Connection:
    // close", and after an empty one.
    using Handler = std::function<std::string(const WireRequest&)>;

    TlsServer(const Identity& identity, Handler handler, const Options& options = Options());
    TlsServer(const TlsServer&) = delete;
    TlsServer& operator=(const TlsServer&) = delete;
    ~TlsServer();

    std::vector<WireRequest> requests() const;
    // Connections that came to a request or failed on the way there.
    int connections() const { return connections_; }

  private:
    void serve();
    void serve_connection(int connection);
    void set_current(int connection);
    bool answer_request(SSL* tls);

    std::unique_ptr<SSL_CTX, Release<SSL_CTX_free>> context_;
    Handler handler_;
    FileDescriptor listener_;
    std::atomic<bool> stopping_{false};
    std::atomic<int> connections_{0};
    mutable std::mutex lock_;
    int current_ = -1; // the connection that is being served
    std::vector<WireRequest> requests_;
    std::thread thread_;
};

// Opens a listening TCP socket.
FileDescriptor listen_on(const std::string& address, int port);

#endif
