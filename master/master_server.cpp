#include "master/master_server.h"

#include "master/listening_socket.h"
#include "master/problem.h"
#include "master/worker_pool.h"
#include "platform/file_descriptor.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <memory>
#include <openssl/err.h>

namespace {

constexpr std::size_t MOST_CONNECTIONS = 1024;
constexpr std::size_t MOST_REQUESTS_PER_CONNECTION = 1000000;

[[noreturn]] void fail_to_start(const std::string& attempt) {
    const char* const reason = ERR_reason_error_string(ERR_peek_last_error());
    throw StartFailure(attempt + ": " + (reason == nullptr ? "unusable" : reason));
}

void use_certificates(SSL_CTX& context, const std::string& directory) {
    const std::string authority = directory + "/ca.pem";
    const std::string certificate = directory + "/master.pem";
    const std::string key = directory + "/master.key";
    ERR_clear_error();
    if (SSL_CTX_use_certificate_chain_file(&context, certificate.c_str()) != 1)
        fail_to_start("cannot read the certificate " + certificate);
    if (SSL_CTX_use_PrivateKey_file(&context, key.c_str(), SSL_FILETYPE_PEM) != 1)
        fail_to_start("cannot use the key " + key);
    if (SSL_CTX_load_verify_file(&context, authority.c_str()) != 1)
        fail_to_start("cannot read the authority's certificate " + authority);
    SSL_CTX_set_client_CA_list(&context, SSL_load_client_CA_file(authority.c_str()));
}

void demand_safe_clients(SSL_CTX& context) {
    SSL_CTX_set_verify(&context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    SSL_CTX_set_min_proto_version(&context, TLS1_2_VERSION);
    SSL_CTX_set_options(&context, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_TICKET |
                                      SSL_OP_CIPHER_SERVER_PREFERENCE);
    // Every connection shows its certificate; a resumed session would not.
    SSL_CTX_set_session_cache_mode(&context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_num_tickets(&context, 0);
}

bool is_number(const std::string& text) {
    return !text.empty() && text.size() < 19 &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

bool is_chunked(const httplib::Request& request) {
    return request.has_header("Transfer-Encoding");
}

std::string content_length(const httplib::Request& request) {
    return request.get_header_value("Content-Length");
}

// Whether it is clear where the request's body ends.
bool is_framed(const httplib::Request& request) {
    const std::size_t lengths = request.get_header_value_count("Content-Length");
    const std::size_t encodings = request.get_header_value_count("Transfer-Encoding");
    if (lengths + encodings == 0)
        return true;
    if (lengths + encodings > 1)
        return false;
    return encodings == 1 ? request.get_header_value("Transfer-Encoding") == "chunked"
                          : is_number(content_length(request));
}

bool has_body(const httplib::Request& request) {
    return is_chunked(request) || (request.has_header("Content-Length") && content_length(request) != "0");
}

bool is_too_large(const httplib::Request& request) {
    return is_framed(request) && has_body(request) && !is_chunked(request) &&
           std::stoull(content_length(request)) > LARGEST_BODY;
}

// Fits what httplib has read of the head to this service, before anybody acts on it.
void adopt_request(Connection& connection, httplib::Request& request) {
    // Answers are always whole.
    request.ranges.clear();
    // The one path for which httplib looks for a handler of its own.
    request.path = PACKAGES_PATH;
    connection.request.accept = request.get_header_value("Accept");
    connection.request.contentType = request.get_header_value("Content-Type");
    // httplib would take multipart bodies apart; here a body is a body.
    request.headers.erase("Content-Type");
    connection.begin_body(has_body(request));
    // Without a length, httplib would read on to the end of the connection.
    if (!is_chunked(request) && !request.has_header("Content-Length"))
        request.set_header("Content-Length", "0");
}

// Sends a body part by part. False ends the connection, so that the client does not take what it has for the
// whole.
bool send_parts(const Answer& answer, httplib::DataSink& sink) {
    try {
        // All in one go: httplib calls once more for the rest, but not when the service is about to stop.
        for (std::string part = answer.body; !part.empty(); part = answer.more())
            if (!sink.write(part.data(), part.size()))
                return false;
        sink.done();
        return true;
    } catch (const std::exception& error) {
        report_problem(error.what());
        return false;
    }
}

void give(Answer answer, const httplib::Request& request, httplib::Response& response) {
    response.status = answer.status;
    if (!answer.allow.empty())
        response.set_header("Allow", answer.allow);
    if (!answer.more) {
        if (!answer.body.empty())
            response.set_content(answer.body, answer.contentType);
        return;
    }
    const auto kept = std::make_shared<const Answer>(std::move(answer));
    const auto send = [kept](std::size_t, httplib::DataSink& sink) { return send_parts(*kept, sink); };
    // HTTP/1.0 knows no chunks: there the end of the connection ends the answer.
    if (request.version == "HTTP/1.0") {
        Connection::current()->begin_body(true);
        response.set_content_provider(kept->contentType, send);
    } else {
        response.set_chunked_content_provider(kept->contentType, send);
    }
}

// Why a request cannot be answered by the service itself: a status, or 0.
int refusal_of(const Connection& connection, const httplib::Request& request) {
    if (connection.refused() != 0)
        return connection.refused();
    if (!is_framed(request))
        return 400;
    if (Service::needs_body(connection.request) && is_too_large(request))
        return 413;
    return 0;
}

std::string reason_of(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        return error.what();
    } catch (...) {
        return "unknown";
    }
}

} // namespace

MasterServer::MasterServer(const std::string& tlsDirectory, Service& service, AccessLog& log,
                           const TimeLimits& limits)
    : SSLServer([](SSL_CTX&) { return true; }), service_(service), log_(log), limits_(limits) {
    if (!is_valid())
        throw StartFailure("cannot set up TLS");
    use_certificates(*ssl_context(), tlsDirectory);
    demand_safe_clients(*ssl_context());
    set_keep_alive_max_count(MOST_REQUESTS_PER_CONNECTION);
    set_keep_alive_timeout(limits.idle.count());
    new_task_queue = [] { return new WorkerPool(MOST_CONNECTIONS); };
    set_handlers();
}

void MasterServer::set_handlers() {
    set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
        const Connection& connection = *Connection::current();
        const int refusal = refusal_of(connection, request);
        if (refusal == 0 && Service::needs_body(connection.request))
            return HandlerResponse::Unhandled;
        give(refusal != 0 ? Service::refusal(refusal) : service_.answer(connection.request), request,
             response);
        return HandlerResponse::Handled;
    });
    Post(PACKAGES_PATH,
         [this](const httplib::Request& request, httplib::Response& response,
                const httplib::ContentReader& read_body) { answer_creation(read_body, request, response); });
    set_exception_handler(
        [](const httplib::Request& request, httplib::Response& response, const std::exception_ptr& failure) {
            report_problem("a request failed: " + reason_of(failure));
            give(Service::refusal(500), request, response);
        });
    // For requests that httplib itself turns away.
    set_error_handler([](const httplib::Request& request, httplib::Response& response) {
        if (response.body.empty())
            give(Service::refusal(response.status), request, response);
    });
    // The last that httplib calls before it sends the answer.
    set_post_routing_handler([this](const httplib::Request&, httplib::Response& response) {
        if (response.status == 204)
            response.headers.erase("Content-Length");
        log_.write(Connection::current()->request, response.status);
    });
}

void MasterServer::answer_creation(const httplib::ContentReader& read_body, const httplib::Request& request,
                                   httplib::Response& response) {
    Connection& connection = *Connection::current();
    std::string& body = connection.request.body;
    bool too_large = false;
    const bool whole = read_body([&](const char* bytes, std::size_t size) {
        too_large = size > LARGEST_BODY - body.size();
        if (!too_large)
            body.append(bytes, size);
        return !too_large;
    });
    if (!whole) {
        give(Service::refusal(too_large ? 413 : 400), request, response);
        return;
    }
    // After chunks, httplib does not say where it stopped.
    if (!is_chunked(request))
        connection.end_body();
    give(service_.answer(connection.request), request, response);
}

std::string MasterServer::listen_on(const std::string& address, int port) {
    svr_sock_ = open_listening_socket(address, port);
    return socket_address(svr_sock_);
}

bool MasterServer::run() {
    const bool accepted = listen_after_bind();
    return accepted || stop_.given();
}

void MasterServer::stop_serving() {
    stop_.give();
    // httplib's own stop() would cut the lists that are being sent.
    shutdown(svr_sock_, SHUT_RDWR);
}

bool MasterServer::process_and_close_socket(socket_t socket) {
    const FileDescriptor owner(socket);
    try {
        Connection connection(socket, *ssl_context(), stop_, limits_);
        serve(connection);
    } catch (const std::exception& error) {
        report_problem(std::string("a connection failed: ") + error.what());
    }
    return true;
}

void MasterServer::serve(Connection& connection) {
    if (connection.shake_hands() && !answer_requests(connection))
        return;
    connection.say_farewell();
}

// False when an answer broke off; closed without a farewell, the connection does not let it pass for a whole
// one.
bool MasterServer::answer_requests(Connection& connection) {
    for (std::size_t left = MOST_REQUESTS_PER_CONNECTION; left > 0 && connection.await_head(); --left) {
        const bool last = left == 1 || stop_.given();
        bool closed = false;
        const bool sent = process_request(connection, last, closed, [&connection](httplib::Request& request) {
            adopt_request(connection, request);
        });
        if (!sent)
            return false;
        if (!connection.flush() || last || closed || !connection.in_step())
            break;
    }
    return true;
}
