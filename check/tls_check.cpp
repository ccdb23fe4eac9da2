#include "check/tls_check.h"

#include "model/package_service.h"
#include "platform/handle.h"
#include "platform/paths.h"
#include "platform/regular_file.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>

#include <fcntl.h>
#include <netdb.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>

namespace {

constexpr std::size_t MAX_PEM_FILE = 1024UL * 1024;

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

using bio_ptr = std::unique_ptr<BIO, Release<BIO_free>>;
using certificate_ptr = std::unique_ptr<X509, Release<X509_free>>;
using key_ptr = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;
using context_ptr = std::unique_ptr<SSL_CTX, Release<SSL_CTX_free>>;
using ssl_ptr = std::unique_ptr<SSL, Release<SSL_free>>;
using addresses_ptr = std::unique_ptr<addrinfo, Release<freeaddrinfo>>;

// OpenSSL's reason for the failure that just happened; the queue is empty then.
std::string openssl_reason() {
    const unsigned long code = ERR_peek_last_error();
    ERR_clear_error();
    const char* reason = ERR_reason_error_string(code);
    return reason != nullptr ? reason : "unknown error";
}

// Without a passphrase of ours, OpenSSL would ask for one on the terminal.
int no_passphrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*data*/) {
    return -1;
}

// Counts the certificate in: its days, and whether it is valid now.
void judge_period(const X509* certificate, TlsFacts& facts, bool first) {
    int days = 0;
    int seconds = 0;
    ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate));
    facts.days_left = first ? days : std::min<long>(facts.days_left, days);
    if (days < 0 || seconds < 0)
        facts.problem = X509_verify_cert_error_string(X509_V_ERR_CERT_HAS_EXPIRED);
    else if (X509_cmp_current_time(X509_get0_notBefore(certificate)) > 0)
        facts.problem = X509_verify_cert_error_string(X509_V_ERR_CERT_NOT_YET_VALID);
}

bio_ptr read_pem(const char* path, TlsFacts& facts) {
    std::string pem;
    if (const int error = read_regular_file(path, MAX_PEM_FILE, pem); error != 0) {
        facts.problem = std::string(path) + ": " + std::strerror(error);
        return nullptr;
    }
    bio_ptr bio(BIO_new(BIO_s_mem()));
    BIO_write(bio.get(), pem.data(), static_cast<int>(pem.size()));
    return bio;
}

int wait_for(int descriptor, short events, Deadline deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd waiting{descriptor, events, 0};
    return left > 0 && poll(&waiting, 1, static_cast<int>(left)) > 0 ? 0 : ETIMEDOUT;
}

int connect_address(const addrinfo& address, Deadline deadline, FileDescriptor& connection) {
    connection = FileDescriptor(socket(address.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!connection.is_open())
        return errno;
    if (connect(connection.get(), address.ai_addr, address.ai_addrlen) == 0)
        return 0;
    if (errno != EINPROGRESS)
        return errno;
    if (const int error = wait_for(connection.get(), POLLOUT, deadline); error != 0)
        return error;
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(connection.get(), SOL_SOCKET, SO_ERROR, &error, &size);
    return error;
}

Deadline new_deadline() {
    return Clock::now() + std::chrono::seconds(CONNECT_TIMEOUT_SECONDS);
}

// The settings of the web-service client.
context_ptr make_context(TlsFacts& facts) {
    context_ptr context(SSL_CTX_new(TLS_client_method()));
    SSL_CTX_set_default_passwd_cb(context.get(), no_passphrase);
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    if (SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1 ||
        SSL_CTX_load_verify_file(context.get(), TLS_AUTHORITY_FILE) != 1 ||
        SSL_CTX_use_certificate_chain_file(context.get(), TLS_HOST_CERTIFICATE_FILE) != 1 ||
        SSL_CTX_use_PrivateKey_file(context.get(), TLS_HOST_KEY_FILE, SSL_FILETYPE_PEM) != 1)
        facts.problem = openssl_reason();
    return context;
}

bool expect_name(SSL* ssl, const std::string& host) {
    if (X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), host.c_str()) == 1)
        return true;
    return SSL_set1_host(ssl, host.c_str()) == 1 && SSL_set_tlsext_host_name(ssl, host.c_str()) == 1;
}

// Empty on success, else the reason.
std::string run_handshake(SSL* ssl, int descriptor) {
    const Deadline deadline = new_deadline();
    for (;;) {
        const int result = SSL_connect(ssl);
        if (result == 1)
            return {};
        const int wanted = SSL_get_error(ssl, result);
        if (wanted == SSL_ERROR_WANT_READ || wanted == SSL_ERROR_WANT_WRITE) {
            const short events = wanted == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
            if (const int error = wait_for(descriptor, events, deadline); error != 0)
                return std::strerror(error);
            continue;
        }
        if (const long problem = SSL_get_verify_result(ssl); problem != X509_V_OK)
            return X509_verify_cert_error_string(problem);
        if (ERR_peek_last_error() != 0)
            return openssl_reason();
        return errno != 0 ? std::strerror(errno) : "the service closed the connection";
    }
}

} // namespace

TlsFacts look_at_authority() {
    TlsFacts facts;
    const bio_ptr bio = read_pem(TLS_AUTHORITY_FILE, facts);
    for (bool first = true; bio; first = false) {
        const certificate_ptr certificate(PEM_read_bio_X509(bio.get(), nullptr, no_passphrase, nullptr));
        if (!certificate) {
            if (first)
                facts.problem = openssl_reason();
            break;
        }
        judge_period(certificate.get(), facts, first);
    }
    ERR_clear_error();
    return facts;
}

TlsFacts look_at_host_pair() {
    TlsFacts facts;
    const bio_ptr certificate_file = read_pem(TLS_HOST_CERTIFICATE_FILE, facts);
    const bio_ptr key_file = read_pem(TLS_HOST_KEY_FILE, facts);
    if (!certificate_file || !key_file)
        return facts;
    const certificate_ptr certificate(
        PEM_read_bio_X509(certificate_file.get(), nullptr, no_passphrase, nullptr));
    if (!certificate) {
        facts.problem = std::string(TLS_HOST_CERTIFICATE_FILE) + ": " + openssl_reason();
        return facts;
    }
    const key_ptr key(PEM_read_bio_PrivateKey(key_file.get(), nullptr, no_passphrase, nullptr));
    if (!key) {
        facts.problem = std::string(TLS_HOST_KEY_FILE) + ": " + openssl_reason();
        return facts;
    }
    judge_period(certificate.get(), facts, true);
    if (X509_check_private_key(certificate.get(), key.get()) != 1)
        facts.problem = openssl_reason();
    return facts;
}

int connect_to(const std::string& host, FileDescriptor& connection) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(WEB_SERVICE_PORT).c_str(), &hints, &found) != 0)
        return EHOSTUNREACH;
    const addresses_ptr addresses(found);
    const Deadline deadline = new_deadline();
    int error = EHOSTUNREACH;
    for (const addrinfo* at = found; at != nullptr && error != 0; at = at->ai_next)
        error = connect_address(*at, deadline, connection);
    return error;
}

TlsFacts handshake(const FileDescriptor& connection, const std::string& host) {
    TlsFacts facts;
    const context_ptr context = make_context(facts);
    if (!facts.problem.empty())
        return facts;
    const ssl_ptr ssl(SSL_new(context.get()));
    if (!expect_name(ssl.get(), host) || SSL_set_fd(ssl.get(), connection.get()) != 1) {
        facts.problem = openssl_reason();
        return facts;
    }
    facts.problem = run_handshake(ssl.get(), connection.get());
    const certificate_ptr certificate(SSL_get1_peer_certificate(ssl.get()));
    if (!facts.problem.empty() || !certificate)
        return facts;
    judge_period(certificate.get(), facts, true);
    facts.protocol = SSL_get_version(ssl.get());
    SSL_shutdown(ssl.get());
    return facts;
}
