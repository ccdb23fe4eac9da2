#include "master/connection.h"

#include "master/problem.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>

namespace {

constexpr std::size_t OUTPUT_SIZE = 64UL * 1024;

thread_local Connection* current_connection = nullptr;

// Where the head ends that begins `text`: behind its first empty line, however the lines end; npos without
// one.
std::size_t find_head_end(const std::string& text, std::size_t from) {
    for (std::size_t line = text.find('\n', from); line != std::string::npos;
         line = text.find('\n', line + 1)) {
        if (text.compare(line + 1, 1, "\n") == 0)
            return line + 2;
        if (text.compare(line + 1, 2, "\r\n") == 0)
            return line + 3;
    }
    return std::string::npos;
}

} // namespace

Connection::Current::Current(Connection* connection) {
    current_connection = connection;
}

Connection::Current::~Current() {
    current_connection = nullptr;
}

Connection* Connection::current() {
    return current_connection;
}

Connection::Connection(int socket, SSL_CTX& context, const StopSignal& stop, const TimeLimits& limits)
    : current_(this), socket_(socket), stop_(stop), limits_(limits), ssl_(SSL_new(&context)) {
    if (ssl_ == nullptr || SSL_set_fd(ssl_.get(), socket) != 1)
        throw std::bad_alloc();
    fcntl(socket, F_SETFL, fcntl(socket, F_GETFL) | O_NONBLOCK);
    SSL_set_mode(ssl_.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
}

// Whether one of `events` came before the deadline and, if `until_stop`, before the service is to stop.
bool Connection::wait(short events, Clock::time_point deadline, bool until_stop) const {
    std::array<pollfd, 2> states{{{socket_, events, 0}, {stop_.descriptor(), POLLIN, 0}}};
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        const int timeout = static_cast<int>(std::clamp<long long>(left, 0, 3600LL * 1000));
        const int ready = poll(states.data(), until_stop ? 2 : 1, timeout);
        if (ready < 0 && errno == EINTR)
            continue;
        return ready > 0 && states[1].revents == 0;
    }
}

// Whether a TLS operation with this result may be tried again, after the wait that it asks for.
bool Connection::retry(int result, Clock::time_point deadline, bool until_stop) {
    switch (SSL_get_error(ssl_.get(), result)) {
    case SSL_ERROR_WANT_READ:
        return wait(POLLIN, deadline, until_stop);
    case SSL_ERROR_WANT_WRITE:
        return wait(POLLOUT, deadline, until_stop);
    default:
        // After any other failure TLS forbids to go on, be it with a closing message.
        broken_ = true;
        return false;
    }
}

bool Connection::shake_hands() {
    const Clock::time_point deadline = Clock::now() + limits_.handshake;
    for (;;) {
        ERR_clear_error();
        const int result = SSL_accept(ssl_.get());
        if (result == 1) {
            shaken_ = true;
            return true;
        }
        if (!retry(result, deadline, true))
            return false;
    }
}

// Receives some bytes more; false when none come.
bool Connection::fill(Clock::time_point deadline) {
    std::array<char, 16UL * 1024> bytes{};
    while (!broken_) {
        ERR_clear_error();
        const int received = SSL_read(ssl_.get(), bytes.data(), static_cast<int>(bytes.size()));
        if (received > 0) {
            buffer_.append(bytes.data(), static_cast<std::size_t>(received));
            return true;
        }
        if (!retry(received, deadline))
            return false;
    }
    return false;
}

void Connection::forget_last_request() {
    buffer_.erase(0, position_);
    position_ = 0;
    head_end_ = 0;
    body_begun_ = false;
    body_pending_ = false;
    refused_ = 0;
    request = ServiceRequest();
}

bool Connection::await_head() {
    forget_last_request();
    if (!is_readable() && !wait(POLLIN, Clock::now() + limits_.idle, true))
        return false;
    const Clock::time_point deadline = Clock::now() + limits_.head;
    std::size_t searched = 0;
    for (;;) {
        head_end_ = find_head_end(buffer_, searched);
        if (head_end_ != std::string::npos)
            break;
        // An end may lie across two receptions: a line end, a carriage return, a line end.
        searched = buffer_.size() < 2 ? 0 : buffer_.size() - 2;
        if (buffer_.size() > LARGEST_HEAD || !fill(deadline))
            break;
    }
    if (head_end_ == std::string::npos && buffer_.size() <= LARGEST_HEAD)
        return false;
    take_request_line();
    answer_deadline_ = Clock::now() + limits_.answer;
    return true;
}

// Keeps the request line's method and target as they came, and gives httplib "/" in place of the target: its
// own reading of targets ends at "#" and refuses a second "?", both of which a filter value may hold.
void Connection::take_request_line() {
    const std::string line = buffer_.substr(0, buffer_.find('\n'));
    const std::size_t first = line.find(' ');
    const std::size_t last = line.rfind(' ');
    const bool complete = first != std::string::npos && last > first + 1 && line.find(' ', first + 1) == last;
    if (complete) {
        request.method = line.substr(0, first);
        request.target = line.substr(first + 1, last - first - 1);
    }
    if (head_end_ == std::string::npos || head_end_ > LARGEST_HEAD) {
        refuse(complete ? 431 : 414);
    } else if (complete) {
        buffer_.replace(first + 1, last - first - 1, "/");
        head_end_ -= request.target.size() - 1;
    }
}

void Connection::refuse(int status) {
    refused_ = status;
    buffer_ = "GET / HTTP/1.1\r\n\r\n";
    head_end_ = buffer_.size();
}

void Connection::begin_body(bool expected) {
    body_begun_ = true;
    // What remains of a head that was refused cannot be told from a body.
    body_pending_ = expected || refused_ != 0;
    body_deadline_ = Clock::now() + limits_.body;
}

ssize_t Connection::read(char* bytes, std::size_t size) {
    const std::size_t end = body_begun_ ? buffer_.size() : head_end_;
    if (position_ == end) {
        if (!body_begun_)
            return -1;
        buffer_.clear();
        position_ = 0;
        // The client may be waiting for "100 Continue" before it sends its body.
        if (!flush() || !fill(body_deadline_))
            return -1;
    }
    const std::size_t available = (body_begun_ ? buffer_.size() : head_end_) - position_;
    const std::size_t count = std::min(size, available);
    buffer_.copy(bytes, count, position_);
    position_ += count;
    return static_cast<ssize_t>(count);
}

ssize_t Connection::write(const char* bytes, std::size_t size) {
    output_.append(bytes, size);
    if (output_.size() >= OUTPUT_SIZE && !flush())
        return -1;
    return static_cast<ssize_t>(size);
}

bool Connection::flush() {
    std::size_t sent = 0;
    while (sent < output_.size() && !broken_) {
        ERR_clear_error();
        const int count = static_cast<int>(std::min(output_.size() - sent, OUTPUT_SIZE));
        const int result = SSL_write(ssl_.get(), output_.data() + sent, count);
        if (result > 0)
            sent += static_cast<std::size_t>(result);
        else if (!retry(result, std::min(Clock::now() + limits_.stall, answer_deadline_)))
            broken_ = true;
    }
    output_.clear();
    return !broken_;
}

// A socket that is closed with bytes unread resets the connection, and the client loses the answer on its
// way.
void Connection::discard_input(Clock::time_point deadline) const {
    std::array<char, 16UL * 1024> bytes{};
    while (wait(POLLIN, deadline, true))
        if (recv(socket_, bytes.data(), bytes.size(), 0) <= 0)
            return;
}

void Connection::say_farewell() {
    // Nothing is on its way to a client that never finished greeting.
    if (!shaken_ && !broken_)
        return;
    ERR_clear_error();
    if (!broken_)
        SSL_shutdown(ssl_.get());
    shutdown(socket_, SHUT_WR);
    discard_input(Clock::now() + limits_.farewell);
}

void Connection::get_remote_ip_and_port(std::string& ip, int& port) const {
    // httplib makes headers of these, which nobody reads.
    ip.clear();
    port = 0;
}

void Connection::get_local_ip_and_port(std::string& ip, int& port) const {
    ip.clear();
    port = 0;
}
