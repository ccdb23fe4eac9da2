// The client under test beside a service of the test's own, with the product's certificates in place.

#ifndef TESTS_UNIT_PLATFORM_QVCLIENT_FIXTURE_H
#define TESTS_UNIT_PLATFORM_QVCLIENT_FIXTURE_H

#include "platform/QVClientCURL.h"
#include "platform/paths.h"
#include "tests/support/log_capture.h"
#include "tests/unit/platform/product_tree.h"
#include "tests/unit/platform/tls_server.h"

#include <memory>

class Client : public QVClientCURL {
  public:
    explicit Client(const std::string& host = "master.example.com", int port = 1556)
        : QVClientCURL(host, port, 1, 1, nullptr, "", true, false, false, "", "", "", "", "", "", false,
                       false, "", 0) {}
};

class QvClient : public ProductTree {
  protected:
    void SetUp() override {
        ProductTree::SetUp();
        std::filesystem::create_directories(std::filesystem::path(TLS_AUTHORITY_FILE).parent_path());
        write_certificate(TLS_AUTHORITY_FILE, authority_);
    }

    // A service that answers every request with the given bytes.
    void serve(const std::string& bytes) {
        serve(master_, [bytes](const WireRequest&) { return bytes; });
    }
    void serve(const Identity& identity, TlsServer::Handler handler, const TlsServer::Options& options = {}) {
        server_.reset();
        server_ = std::make_unique<TlsServer>(identity, std::move(handler), options);
    }

    // The one request that the service got.
    WireRequest request() const {
        const std::vector<WireRequest> all = server_->requests();
        EXPECT_EQ(all.size(), 1U);
        return all.empty() ? WireRequest() : all.front();
    }

    Identity authority_ = make_authority("Test authority");
    Identity master_ = make_identity(authority_, "master.example.com",
                                     "DNS:master.example.com,DNS:localhost,IP:127.0.0.1,IP:::1");
    std::unique_ptr<TlsServer> server_;
    LogCapture log_;
};

#endif
