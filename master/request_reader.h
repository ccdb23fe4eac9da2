// Reads HTTP/1.1 requests from the bytes of one connection. Knows no network.
//
// Stricter than the parser beneath it: where two readers could disagree about where a request ends, the
// request is refused. That is a Transfer-Encoding other than exactly "chunked", with a Content-Length or
// twice; two Content-Lengths, or one that is not a number; no Host in HTTP/1.1, or two; folded lines; control
// characters, bare line feeds among them.

#ifndef MASTER_REQUEST_READER_H
#define MASTER_REQUEST_READER_H

#include "master/service.h"

#include <memory>
#include <string>
#include <string_view>

// In bytes: the request line with all header lines, and the body.
inline constexpr std::size_t MAX_HEAD = 64UL * 1024;
inline constexpr std::size_t MAX_BODY = 16UL * 1024 * 1024;

class RequestReader {
  public:
    RequestReader();
    ~RequestReader();
    RequestReader(const RequestReader&) = delete;
    RequestReader& operator=(const RequestReader&) = delete;

    void append(std::string_view received) { input_ += received; }

    // Whether nothing of the next request has been received.
    bool is_idle() const { return input_.empty(); }

    // Begins the next request, with the bytes after the last one.
    void next();

    // Both return false where they need more bytes, and true once the head or the body is complete, or the
    // request is refused. read_body() comes after read_head(), and only if has_body().
    bool read_head();
    bool read_body();

    // As far as it could be read; the body only once read_body() has returned true.
    const ServiceRequest& request() const { return request_; }

    // 400, 413, 414, 415 or 431 for a request that is refused; otherwise 0. After a refusal call nothing but
    // the queries.
    int refusal() const { return refusal_; }

    bool has_body() const;
    bool expects_continue() const;
    bool is_http_1_0() const;

    // Whether another request may follow: this one was read whole, and the client does not ask to close.
    bool can_reuse() const;

  private:
    struct Parser;

    bool refuse(int status);
    bool parse_head(std::string_view head);

    std::unique_ptr<Parser> parser_;
    std::string input_;
    std::size_t searched_ = 0; // so much of input_ holds no end of the head
    ServiceRequest request_;
    int refusal_ = 0;
};

#endif
