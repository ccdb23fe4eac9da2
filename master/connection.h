// One client's TLS connection, with an end to everything that a client could draw out.

#ifndef MASTER_CONNECTION_H
#define MASTER_CONNECTION_H

#include "master/service.h"
#include "master/stop_signal.h"

#include <httplib.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

// How long a client may take.
struct TimeLimits {
    explicit TimeLimits(std::chrono::seconds patience)
        : handshake(patience), idle(patience), head(patience), stall(2 * patience), body(6 * patience),
          answer(60 * patience), farewell(patience) {}

    std::chrono::seconds handshake; // for the TLS handshake
    std::chrono::seconds idle;      // until the next request begins
    std::chrono::seconds head;      // for the request line and the headers
    std::chrono::seconds stall;     // for taking anything more of an answer
    std::chrono::seconds body;      // for a whole request
    std::chrono::seconds answer;    // for a whole answer
    std::chrono::seconds farewell;  // for what is still under way when the service closes
};

// Request line and headers together may take this many bytes.
inline constexpr std::size_t LARGEST_HEAD = 64UL * 1024;

// httplib reads requests from it and writes answers to it. Used by one thread, for one request after the
// other:
//
//     if (connection.shake_hands())
//         while (connection.await_head()) {
//             ... httplib reads the request and writes the answer ...
//             if (!connection.flush() || !connection.in_step())
//                 break;
//         }
//     connection.say_farewell();
class Connection : public httplib::Stream {
  public:
    // Takes over neither `socket` nor `context`; both must outlive the connection. The socket is made
    // non-blocking.
    Connection(int socket, SSL_CTX& context, const StopSignal& stop, const TimeLimits& limits);

    // The connection that the calling thread serves, or null.
    static Connection* current();

    // False when the client is refused, fails or takes too long, or the service stops.
    bool shake_hands();

    // Waits for the next request until all of its head is there; false when none comes, or the service stops.
    // A head that is too large is replaced by one that httplib takes, and refused() says so.
    bool await_head();

    // Lets reads go on behind the head. Until then they end there, so that a head which httplib
    // misunderstands cannot make it wait for more, nor take the body for headers.
    void begin_body(bool expected);

    // To be called when the whole body was read, and the next request begins where reading stopped.
    void end_body() { body_pending_ = false; }

    // Whether the next byte from the client begins a request.
    bool in_step() const { return body_begun_ && !body_pending_; }

    // Sends what was written so far; false when the client does not take it.
    bool flush();

    // Ends the connection so that the client can read the last answer, or why it was refused, even while it
    // is still sending.
    void say_farewell();

    // The request as it came, for whoever answers and logs it. The body is filled in by who reads it.
    ServiceRequest request;

    // The status that answers the present request without looking at it; 0 for none.
    int refused() const { return refused_; }

    bool is_readable() const override { return position_ < buffer_.size() || SSL_pending(ssl_.get()) > 0; }
    bool is_writable() const override { return !broken_; }
    ssize_t read(char* bytes, std::size_t size) override;
    ssize_t write(const char* bytes, std::size_t size) override;
    void get_remote_ip_and_port(std::string& ip, int& port) const override;
    void get_local_ip_and_port(std::string& ip, int& port) const override;
    socket_t socket() const override { return socket_; }

  private:
    using Clock = std::chrono::steady_clock;
    struct Free {
        void operator()(SSL* ssl) const { SSL_free(ssl); }
    };
    struct Current {
        explicit Current(Connection* connection);
        Current(const Current&) = delete;
        Current(Current&&) = delete;
        Current& operator=(const Current&) = delete;
        Current& operator=(Current&&) = delete;
        ~Current();
    };

    bool wait(short events, Clock::time_point deadline, bool until_stop) const;
    bool retry(int result, Clock::time_point deadline, bool until_stop = false);
    bool fill(Clock::time_point deadline);
    void forget_last_request();
    void take_request_line();
    void refuse(int status);
    void discard_input(Clock::time_point deadline) const;

    Current current_;
    int socket_;
    const StopSignal& stop_;
    TimeLimits limits_;
    std::unique_ptr<SSL, Free> ssl_;

    std::string buffer_; // received and not yet read, from position_ on
    std::size_t position_ = 0;
    std::size_t head_end_ = 0;
    bool body_begun_ = false;
    bool body_pending_ = false;
    Clock::time_point body_deadline_;

    std::string output_; // written and not yet sent
    Clock::time_point answer_deadline_;
    int refused_ = 0;
    bool shaken_ = false;
    bool broken_ = false;
};

#endif
