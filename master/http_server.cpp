#include "master/http_server.h"

#include "master/log_error.h"
#include "master/request_reader.h"
#include "master/tls_context.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/beast/http/status.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <list>
#include <optional>
#include <sstream>
#include <systemd/sd-daemon.h>
#include <thread>
#include <utility>

namespace asio = boost::asio;
namespace http = boost::beast::http;
using asio::ip::tcp;
using boost::system::error_code;
using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

namespace {

// At most so many connections are open; further ones wait in the system's queue.
constexpr std::size_t MAX_CONNECTIONS = 1024;
// With so many connections open, the oldest unfinished handshake makes room for a new one, unless there are
// no more than MIN_HANDSHAKES and it is younger than FAIR_HANDSHAKE: clients that come at once must not drop
// each other.
constexpr std::ptrdiff_t MIN_HANDSHAKES = 64;
constexpr seconds FAIR_HANDSHAKE(1);
constexpr std::size_t SERVICE_THREADS = 8;
// How often deadlines are looked at, and how long accepting rests after a failure.
constexpr std::chrono::milliseconds TICK(100);

// Multiples of the timeout.
constexpr int STALL_LIMIT = 2;   // until the client takes anything more of an answer
constexpr int BODY_LIMIT = 6;    // for a whole request
constexpr int ANSWER_LIMIT = 60; // for a whole answer

constexpr std::chrono::hours UNLIMITED(24 * 365); // the service's own time is not the client's

template <class Value>
std::string to_text(const Value& value, std::ios_base& (*base)(std::ios_base&) = std::dec) {
    std::ostringstream text;
    text << base << value;
    return text.str();
}

class Session;

// What the connections share.
struct Server {
    void remove(const std::shared_ptr<Session>& session) {
        sessions.remove(session);
        if (stopping && sessions.empty())
            io.stop();
    }

    const HttpServerOptions options;
    Service& service;
    AccessLog& log;
    asio::io_context io{};
    asio::thread_pool pool{SERVICE_THREADS};
    std::shared_ptr<asio::ssl::context> tls{};
    bool stopping = false;
    std::list<std::shared_ptr<Session>> sessions{}; // the oldest first
};

// One client's connection. It has one operation under way at any time, and when that takes too long, the
// server's tick ends it; so each phase has an end that no client can put off.
class Session : public std::enable_shared_from_this<Session> {
  public:
    Session(Server& server, tcp::socket socket, tcp::endpoint client)
        : server_(server), client_(std::move(client)), tls_(server.tls), stream_(std::move(socket), *tls_) {}

    bool is_established() const { return established_; }
    Clock::time_point begun() const { return begun_; }

    void handshake() {
        enter(Phase::HANDSHAKE, timeout_);
        stream_.async_handshake(asio::ssl::stream_base::server,
                                [self = shared_from_this()](error_code error) {
                                    self->established_ = !error;
                                    if (!error)
                                        self->next_request();
                                    else if (error.category() == asio::error::get_ssl_category())
                                        self->refuse_client(error);
                                    else
                                        self->drop();
                                });
    }

    void check_deadline(Clock::time_point now) {
        if (now < deadline_)
            return;
        if (phase_ == Phase::IDLE || phase_ == Phase::REQUEST)
            interrupt();
        else
            drop();
    }

    void request_stop() {
        const bool idle = phase_ == Phase::IDLE;
        // The last answer may still be on its way to the client, unless the client has long read it.
        close_limit_ = idle ? Clock::duration::zero() : std::min<Clock::duration>(timeout_, seconds(1));
        if (idle)
            interrupt();
        else if (phase_ == Phase::HANDSHAKE)
            drop();
        else if (phase_ == Phase::CLOSE)
            deadline_ = std::min(deadline_, Clock::now() + close_limit_);
    }

    void drop() {
        error_code ignored;
        stream_.next_layer().close(ignored);
        // What holds a list open in the database is let go where waiting for the database is allowed.
        if (answer_.more)
            asio::post(server_.pool, [more = std::exchange(answer_.more, nullptr)] {});
        server_.remove(shared_from_this());
    }

  private:
    enum class Phase { HANDSHAKE, IDLE, REQUEST, ANSWER, CLOSE };
    using Step = void (Session::*)();

    void enter(Phase phase, Clock::duration limit) {
        phase_ = phase;
        deadline_ = Clock::now() + limit;
    }

    // Ends the reading under way, whose handler then closes.
    void interrupt() {
        enter(Phase::CLOSE, close_limit_);
        error_code ignored;
        stream_.next_layer().cancel(ignored);
    }

    void refuse_client(error_code error) {
        const long verified = SSL_get_verify_result(stream_.native_handle());
        log_warning(
            "refused the TLS client " + to_text(client_) + ": " + error.message() +
            (verified == X509_V_OK ? "" : std::string(" (") + X509_verify_cert_error_string(verified) + ")"));
        enter(Phase::CLOSE, close_limit_);
        drain();
    }

    void receive(Step next) {
        stream_.async_read_some(asio::buffer(input_),
                                [self = shared_from_this(), next](error_code error, std::size_t size) {
                                    if (error || self->phase_ == Phase::CLOSE)
                                        return self->close();
                                    if (self->phase_ == Phase::IDLE)
                                        self->enter(Phase::REQUEST, self->timeout_);
                                    self->reader_.append({self->input_.data(), size});
                                    ((*self).*next)();
                                });
    }

    void next_request() {
        reader_.next();
        answer_deadline_ = Clock::time_point::max();
        enter(reader_.is_idle() ? Phase::IDLE : Phase::REQUEST, timeout_);
        read_head();
    }

    void read_head() {
        if (!reader_.read_head())
            receive(&Session::read_head);
        else if (reader_.refusal() != 0 || !reader_.has_body() || !Service::needs_body(reader_.request()))
            ask_service();
        else if (reader_.expects_continue())
            write("HTTP/1.1 100 Continue\r\n\r\n", &Session::begin_body);
        else
            begin_body();
    }

    void begin_body() {
        enter(Phase::REQUEST, BODY_LIMIT * timeout_);
        read_body();
    }

    void read_body() {
        if (reader_.read_body())
            ask_service();
        else
            receive(&Session::read_body);
    }

    void ask_service() { work(&Session::make_answer, &Session::write_response); }

    // Calls `act` where waiting for the disk is allowed, and `then` with its result.
    template <typename Result>
    void work(Result (Session::*act)(), void (Session::*then)(Result)) {
        enter(Phase::ANSWER, UNLIMITED);
        asio::post(server_.pool, [self = shared_from_this(), act, then] {
            asio::post(self->server_.io, [self, then, result = ((*self).*act)()]() mutable {
                ((*self).*then)(std::move(result));
            });
        });
    }

    Answer make_answer() {
        const ServiceRequest& request = reader_.request();
        Answer answer;
        try {
            answer = reader_.refusal() != 0 ? Service::refusal(reader_.refusal())
                                            : server_.service.answer(request);
        } catch (const std::exception& error) {
            log_error(std::string("a request failed: ") + error.what());
            answer = Service::refusal(500);
        }
        server_.log.write(request, answer.status);
        return answer;
    }

    void write_response(Answer answer) {
        answer_ = std::move(answer);
        answer_deadline_ = Clock::now() + ANSWER_LIMIT * timeout_;
        reuse_ = reader_.can_reuse() && !server_.stopping;
        std::string output = response_head();
        if (answer_.more)
            output += framed(answer_.body);
        else if (reader_.request().method != "HEAD")
            output += answer_.body;
        write(std::move(output), &Session::write_next);
    }

    std::string response_head() const {
        std::ostringstream head;
        head << "HTTP/1.1 " << answer_.status << ' '
             << http::obsolete_reason(static_cast<http::status>(answer_.status)) << "\r\n";
        if (!answer_.contentType.empty())
            head << "Content-Type: " << answer_.contentType << "\r\n";
        if (!answer_.allow.empty())
            head << "Allow: " << answer_.allow << "\r\n";
        if (!answer_.more && answer_.status != 204)
            head << "Content-Length: " << answer_.body.size() << "\r\n";
        if (answer_.more && !reader_.is_http_1_0())
            head << "Transfer-Encoding: chunked\r\n";
        if (!reuse_)
            head << "Connection: close\r\n";
        head << "\r\n";
        return head.str();
    }

    // A part of the body as a chunk; the empty one is the last. HTTP/1.0 knows no chunks: there the end of
    // the connection ends the body.
    std::string framed(const std::string& part) const {
        return reader_.is_http_1_0() ? part : to_text(part.size(), std::hex) + "\r\n" + part + "\r\n";
    }

    void write_next() {
        if (!answer_.more)
            return reuse_ ? next_request() : close();
        work(&Session::make_part, &Session::write_part);
    }

    std::optional<std::string> make_part() {
        try {
            std::string part = answer_.more();
            if (part.empty())
                answer_.more = nullptr;
            return part;
        } catch (const std::exception& error) {
            log_error(error.what());
            return std::nullopt;
        }
    }

    // Without a part, it drops the connection, so that the client does not take what it has for the whole.
    void write_part(std::optional<std::string> part) {
        if (part)
            write(framed(*part), &Session::write_next);
        else
            drop();
    }

    void write(std::string output, Step next) {
        output_ = std::move(output);
        written_ = 0;
        after_write_ = next;
        write_some();
    }

    void write_some() {
        if (written_ == output_.size())
            return (this->*after_write_)();
        enter(Phase::ANSWER, STALL_LIMIT * timeout_);
        deadline_ = std::min(deadline_, answer_deadline_);
        stream_.async_write_some(asio::buffer(output_) + written_,
                                 [self = shared_from_this()](error_code error, std::size_t size) {
                                     self->written_ += size;
                                     if (error)
                                         self->drop();
                                     else
                                         self->write_some();
                                 });
    }

    // Ends the connection so that the client can read the last answer, or why it was refused, even while it
    // is still sending: a socket that is closed with bytes unread resets the connection.
    void close() {
        enter(Phase::CLOSE, close_limit_);
        stream_.async_shutdown([self = shared_from_this()](error_code) { self->drain(); });
    }

    void drain() {
        error_code ignored;
        stream_.next_layer().shutdown(tcp::socket::shutdown_send, ignored);
        discard_input();
    }

    void discard_input() {
        stream_.next_layer().async_read_some(asio::buffer(input_),
                                             [self = shared_from_this()](error_code error, std::size_t) {
                                                 if (error)
                                                     self->drop();
                                                 else
                                                     self->discard_input();
                                             });
    }

    Server& server_;
    const seconds timeout_{server_.options.timeout};
    const tcp::endpoint client_;
    const std::shared_ptr<asio::ssl::context> tls_;
    asio::ssl::stream<tcp::socket> stream_;
    const Clock::time_point begun_ = Clock::now();
    bool established_ = false;
    Phase phase_ = Phase::HANDSHAKE;
    Clock::time_point deadline_;
    Clock::duration close_limit_ = timeout_;

    RequestReader reader_;
    std::array<char, 8UL * 1024> input_{};
    Answer answer_;
    bool reuse_ = false;
    Clock::time_point answer_deadline_;
    std::string output_;
    std::size_t written_ = 0;
    Step after_write_ = nullptr;
};

class HttpServer {
  public:
    HttpServer(const HttpServerOptions& options, Service& service, AccessLog& log)
        : server_{options, service, log} {
        load_certificates();
    }

    // When a machine starts, its addresses and its name server may come after the service.
    std::string listen() {
        const Clock::time_point deadline = Clock::now() + seconds(server_.options.timeout);
        error_code error;
        while ((error = try_to_listen(server_.options.address))) {
            const bool may_come =
                error == asio::error::host_not_found_try_again || error.value() == EADDRNOTAVAIL;
            if (!may_come || Clock::now() >= deadline)
                throw StartFailure("cannot listen on " + server_.options.address + " port " +
                                   std::to_string(server_.options.port) + ": " + error.message());
            std::this_thread::sleep_for(TICK);
        }
        for (const int signal : {SIGTERM, SIGINT, SIGHUP})
            signals_.add(signal);
        return to_text(acceptor_.local_endpoint());
    }

    void run() {
        await_signal();
        await_client();
        sd_notify(0, "READY=1");
        while (!server_.io.stopped()) {
            try {
                server_.io.run();
            } catch (const std::exception& error) {
                log_error(std::string("a connection failed: ") + error.what());
            }
        }
        server_.pool.join();
    }

  private:
    void load_certificates() {
        const auto context = std::make_shared<asio::ssl::context>(asio::ssl::context::tls_server);
        set_up_tls(*context->native_handle(), server_.options.tls);
        server_.tls = context;
    }

    error_code try_to_listen(const std::string& address) {
        error_code error;
        const auto found =
            tcp::resolver(server_.io)
                .resolve(address, std::to_string(server_.options.port), tcp::resolver::passive, error);
        for (const tcp::endpoint endpoint : found) {
            try {
                tcp::acceptor acceptor(server_.io, endpoint.protocol());
                // Not SO_REUSEPORT: a second service on the same port has to fail.
                acceptor.set_option(tcp::acceptor::reuse_address(true));
                if (endpoint.protocol() == tcp::v6())
                    acceptor.set_option(asio::ip::v6_only(false));
                // Otherwise Asio itself would wait for another client.
                acceptor.set_option(asio::socket_base::enable_connection_aborted(true));
                acceptor.non_blocking(true);
                acceptor.bind(endpoint);
                acceptor.listen();
                acceptor_ = std::move(acceptor);
                return {};
            } catch (const boost::system::system_error& failure) {
                error = failure.code();
            }
        }
        const bool no_ipv6 =
            error == asio::error::address_family_not_supported && address == HttpServerOptions().address;
        return no_ipv6 ? try_to_listen("0.0.0.0") : error;
    }

    void await_signal() {
        signals_.async_wait([this](error_code, int signal) {
            if (signal == SIGHUP)
                reload();
            else
                request_stop();
            await_signal();
        });
    }

    void reload() {
        sd_notify(0, "RELOADING=1");
        try {
            load_certificates();
        } catch (const std::exception& error) {
            log_error(std::string(error.what()) + "; serving on with the certificates that were read before");
        }
        server_.log.reopen();
        sd_notify(0, "READY=1");
    }

    void request_stop() {
        sd_notify(0, "STOPPING=1");
        server_.stopping = true;
        error_code ignored;
        acceptor_.close(ignored);
        for (const auto& session : std::list(server_.sessions))
            session->request_stop();
        if (server_.sessions.empty())
            server_.io.stop();
    }

    void await_client() {
        acceptor_.async_wait(tcp::acceptor::wait_read, [this](error_code) {
            if (!server_.stopping)
                accept();
        });
    }

    void accept() {
        if (server_.sessions.size() >= MAX_CONNECTIONS && !drop_oldest_handshake())
            return pause_accepting();
        try {
            error_code error;
            tcp::endpoint client;
            tcp::socket socket = acceptor_.accept(server_.io, client, error);
            if (error == asio::error::would_block) // the client has left again
                return await_client();
            if (error)
                throw boost::system::system_error(error);
            socket.set_option(tcp::no_delay(true), error);
            server_.sessions.push_back(std::make_shared<Session>(server_, std::move(socket), client));
            start_ticking();
            server_.sessions.back()->handshake();
            await_client();
        } catch (const std::exception& error) {
            log_error(std::string("cannot accept a connection: ") + error.what());
            drop_oldest_handshake(); // where descriptors or memory are short, this makes room
            pause_accepting();
        }
    }

    bool drop_oldest_handshake() {
        const auto unfinished = [](const std::shared_ptr<Session>& session) {
            return !session->is_established();
        };
        const auto oldest = std::find_if(server_.sessions.begin(), server_.sessions.end(), unfinished);
        if (oldest == server_.sessions.end() ||
            ((*oldest)->begun() > Clock::now() - FAIR_HANDSHAKE &&
             std::count_if(oldest, server_.sessions.end(), unfinished) <= MIN_HANDSHAKES))
            return false;
        (*oldest)->drop();
        return true;
    }

    void pause_accepting() {
        accept_paused_ = true;
        start_ticking();
    }

    void start_ticking() {
        if (std::exchange(ticking_, true))
            return;
        timer_.expires_after(TICK);
        timer_.async_wait([this](error_code) {
            ticking_ = false;
            tick();
        });
    }

    void tick() {
        if (!server_.sessions.empty())
            start_ticking();
        for (const auto& session : std::list(server_.sessions))
            session->check_deadline(Clock::now());
        if (std::exchange(accept_paused_, false) && !server_.stopping)
            accept();
    }

    Server server_;
    asio::executor_work_guard<asio::io_context::executor_type> work_{server_.io.get_executor()};
    asio::signal_set signals_{server_.io};
    tcp::acceptor acceptor_{server_.io};
    asio::steady_timer timer_{server_.io};
    bool ticking_ = false;
    bool accept_paused_ = false;
};

} // namespace

void serve_http(const HttpServerOptions& options, Service& service, AccessLog& log,
                const std::function<void(const std::string&)>& ready) {
    HttpServer server(options, service, log);
    ready(server.listen());
    server.run();
}
