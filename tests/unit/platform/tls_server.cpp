#include "tests/unit/platform/tls_server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <csignal>
#include <netinet/in.h>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>

namespace {

constexpr const char* HEAD_END = "\r\n\r\n";

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

// Reads until `text` has `size` bytes. False when the client ends first.
bool read_up_to(SSL* tls, std::string& text, std::size_t size) {
    char buffer[16384];
    while (text.size() < size) {
        const int count = SSL_read(tls, buffer, sizeof buffer);
        if (count <= 0)
            return false;
        text.append(buffer, static_cast<std::size_t>(count));
    }
    return true;
}

bool read_request(SSL* tls, WireRequest& request) {
    std::string text;
    while (text.find(HEAD_END) == std::string::npos) {
        if (!read_up_to(tls, text, text.size() + 1))
            return false;
    }
    const std::size_t end = text.find(HEAD_END) + 4;
    request.head = text.substr(0, end - 2);
    request.body = text.substr(end);
    const std::string length = request.header("content-length");
    return length == "(none)" || read_up_to(tls, request.body, std::stoul(length));
}

// False when the client does not want to hear the rest.
bool write_all(SSL* tls, const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const std::size_t piece = std::min(bytes.size() - done, std::size_t{1} << 20U);
        const int count = SSL_write(tls, bytes.data() + done, static_cast<int>(piece));
        if (count <= 0)
            return false;
        done += static_cast<std::size_t>(count);
    }
    return true;
}

std::string client_name(SSL* tls) {
    const std::unique_ptr<X509, Release<X509_free>> certificate(SSL_get1_peer_certificate(tls));
    char name[256] = "";
    if (certificate != nullptr)
        X509_NAME_get_text_by_NID(X509_get_subject_name(certificate.get()), NID_commonName, name,
                                  sizeof name);
    return name;
}

// Chooses HTTP/2 where the client offers it.
int prefer_http2(SSL* /*tls*/, const unsigned char** chosen, unsigned char* length,
                 const unsigned char* offered, unsigned offered_length, void* /*context*/) {
    static constexpr unsigned char http2[] = {2, 'h', '2'};
    auto* out = const_cast<unsigned char**>(chosen);
    return SSL_select_next_proto(out, length, http2, sizeof http2, offered, offered_length) ==
                   OPENSSL_NPN_NEGOTIATED
               ? SSL_TLSEXT_ERR_OK
               : SSL_TLSEXT_ERR_NOACK;
}

int accept_any_certificate(int /*verified*/, X509_STORE_CTX* /*context*/) {
    return 1;
}

} // namespace

std::vector<std::string> WireRequest::headers(const std::string& name) const {
    std::vector<std::string> values;
    std::istringstream lines(head);
    for (std::string text; std::getline(lines, text);) {
        const std::size_t colon = text.find(": ");
        if (colon != std::string::npos && lower(text.substr(0, colon)) == name)
            values.push_back(text.substr(colon + 2, text.size() - colon - 3));
    }
    return values;
}

std::string WireRequest::header(const std::string& name) const {
    const std::vector<std::string> values = headers(name);
    return values.empty() ? "(none)" : values.size() == 1 ? values[0] : "(several)";
}

std::string answer(int code, const std::string& body, const std::string& headers) {
    return "HTTP/1.1 " + std::to_string(code) + " Answer\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n" + headers + "\r\n" + body;
}

FileDescriptor listen_on(const std::string& address, int port) {
    sockaddr_storage storage{};
    socklen_t size = sizeof(sockaddr_in);
    auto* inet = reinterpret_cast<sockaddr_in*>(&storage);
    auto* inet6 = reinterpret_cast<sockaddr_in6*>(&storage);
    if (inet_pton(AF_INET, address.c_str(), &inet->sin_addr) == 1) {
        inet->sin_family = AF_INET;
        inet->sin_port = htons(static_cast<std::uint16_t>(port));
    } else if (inet_pton(AF_INET6, address.c_str(), &inet6->sin6_addr) == 1) {
        inet6->sin6_family = AF_INET6;
        inet6->sin6_port = htons(static_cast<std::uint16_t>(port));
        size = sizeof(sockaddr_in6);
    }
    FileDescriptor listener(socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&storage), size) != 0 ||
        listen(listener.get(), 16) != 0)
        throw std::runtime_error("cannot listen on " + address);
    return listener;
}

TlsServer::TlsServer(const Identity& identity, Handler handler, const Options& options)
    : context_(SSL_CTX_new(TLS_server_method())), handler_(std::move(handler)),
      listener_(listen_on(options.address, options.port)) {
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN)); // a client that hangs up must not end the test
    SSL_CTX_use_certificate(context_.get(), identity.certificate.get());
    SSL_CTX_use_PrivateKey(context_.get(), identity.key.get());
    SSL_CTX_set_min_proto_version(context_.get(), options.min_version);
    SSL_CTX_set_max_proto_version(context_.get(), options.max_version);
    if (options.prefers_http2)
        SSL_CTX_set_alpn_select_cb(context_.get(), &prefer_http2, nullptr);
    SSL_CTX_set_verify(context_.get(), SSL_VERIFY_PEER, &accept_any_certificate);
    thread_ = std::thread([this] { serve(); });
}

TlsServer::~TlsServer() {
    stopping_ = true;
    shutdown(listener_.get(), SHUT_RDWR);
    {
        // A client that keeps its connection would keep the thread.
        const std::lock_guard<std::mutex> guard(lock_);
        shutdown(current_, SHUT_RDWR);
    }
    thread_.join();
}

std::vector<WireRequest> TlsServer::requests() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return requests_;
}

void TlsServer::serve() {
    while (!stopping_) {
        const FileDescriptor connection(accept(listener_.get(), nullptr, nullptr));
        if (!connection.is_open())
            continue;
        set_current(connection.get());
        serve_connection(connection.get());
        set_current(-1);
    }
}

void TlsServer::set_current(int connection) {
    const std::lock_guard<std::mutex> guard(lock_);
    current_ = connection;
    if (stopping_)
        shutdown(current_, SHUT_RDWR);
}

void TlsServer::serve_connection(int connection) {
    ++connections_;
    const std::unique_ptr<SSL, Release<SSL_free>> tls(SSL_new(context_.get()));
    SSL_set_fd(tls.get(), connection);
    if (SSL_accept(tls.get()) != 1)
        return;
    while (answer_request(tls.get())) {
    }
}

bool TlsServer::answer_request(SSL* tls) {
    WireRequest request;
    if (!read_request(tls, request))
        return false;
    request.client_name = client_name(tls);
    {
        const std::lock_guard<std::mutex> guard(lock_);
        requests_.push_back(request);
    }
    const std::string bytes = handler_(request);
    const std::string head = bytes.substr(0, bytes.find(HEAD_END));
    return write_all(tls, bytes) && !bytes.empty() && head.find("Connection: close") == std::string::npos;
}
