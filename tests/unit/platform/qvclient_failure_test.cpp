// How a request ends without a whole answer: libcurl's number, one record in the log, and no results.

#include "tests/unit/platform/qvclient_fixture.h"

#include <curl/curl.h>
#include <gmock/gmock.h>

#include <cstdarg>
#include <map>
#include <sys/socket.h>

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's --wrap gives these
// names
extern "C" {

CURLcode __real_curl_easy_setopt(CURL*, CURLoption, ...);

// What the options of long value were last set to.
static std::map<CURLoption, long> long_options;

// The option comes as a number, since va_start takes no enumeration.
CURLcode __wrap_curl_easy_setopt(CURL* handle, int number, ...) {
    std::va_list arguments;
    va_start(arguments, number);
    void* value = va_arg(arguments, void*); // as wide as a value of any type
    va_end(arguments);
    const auto option = static_cast<CURLoption>(number);
    if (option < CURLOPTTYPE_OBJECTPOINT)
        long_options[option] = reinterpret_cast<long>(value);
    return __real_curl_easy_setopt(handle, option, value);
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace {

using ::testing::MatchesRegex;

constexpr int UNSUPPORTED_PROTOCOL = 1;
constexpr int BAD_URL = 3;
constexpr int CANNOT_RESOLVE = 6;
constexpr int CANNOT_CONNECT = 7;
constexpr int HALF_AN_ANSWER = 18;
constexpr int ANSWER_REFUSED = 23;
constexpr int TIMED_OUT = 28;
constexpr int BAD_OPTION = 43;
constexpr int NO_ANSWER = 52;
constexpr int CANNOT_UNPACK = 61;
constexpr int ANNOUNCED_TOO_LONG = 63;

constexpr std::size_t MAX_ANSWER = std::size_t{512} * 1024 * 1024;

// Bits in the order in which a deflate stream holds them.
class BitStream {
  public:
    // The bits of a code, highest first.
    void add(unsigned code, int bits) {
        while (bits-- > 0) {
            last_ |= ((code >> static_cast<unsigned>(bits)) & 1U) << filled_++;
            if (filled_ == 8)
                end_byte();
        }
    }
    std::string bytes() {
        if (filled_ > 0)
            end_byte();
        return bytes_;
    }

  private:
    void end_byte() {
        bytes_ += static_cast<char>(last_);
        last_ = 0;
        filled_ = 0;
    }

    std::string bytes_;
    unsigned last_ = 0;
    unsigned filled_ = 0;
};

// `size` times the character '0', packed to a thousandth: one character, then copies of it, 258 at a time.
std::string packed_zeros(std::size_t size) {
    constexpr std::size_t copied = 258;
    BitStream stream;
    stream.add(0b110, 3); // the last block, of fixed codes
    stream.add(0x60, 8);  // '0'
    for (std::size_t left = size - 1; left > 0;) {
        if (left >= copied) {
            stream.add(0b11000101'00000, 13); // 258 times the character before
            left -= copied;
        } else {
            stream.add(0x60, 8);
            --left;
        }
    }
    stream.add(0, 7); // the end of the block
    return stream.bytes();
}

class QvClientFailure : public QvClient {
  protected:
    // A request of `client` that has to fail with `expected`. Returns the text of its log record.
    std::string failure(Client& client, int expected) {
        client.httpResponseCode = 999;
        client.responseBody = "left over";
        const std::size_t records_before = log_.records().size();
        EXPECT_EQ(client.get("x"), expected);
        EXPECT_EQ(client.httpResponseCode, 0);
        EXPECT_EQ(client.responseBody, "");
        const std::vector<LogRecord> records = log_.records();
        EXPECT_EQ(records.size(), records_before + 1) << "one record for one failure";
        if (records.size() <= records_before)
            return "";
        EXPECT_EQ(records.back().level, 16);
        EXPECT_EQ(records.back().function, "QVClientCURL");
        return records.back().text;
    }
    std::string failure(int expected) {
        Client client;
        return failure(client, expected);
    }
};

TEST_F(QvClientFailure, WhereNobodyListens) {
    EXPECT_THAT(failure(CANNOT_CONNECT),
                MatchesRegex("Failed to connect to master.example.com port 1556 after .*"));
}

TEST_F(QvClientFailure, WhereTheHostIsUnknown) {
    Client client("unknown.example.com");
    EXPECT_EQ(failure(client, CANNOT_RESOLVE), "Could not resolve host: unknown.example.com");
}

TEST_F(QvClientFailure, WhereTheServiceIsNotTrusted) {
    const Identity other = make_authority("Other authority");
    serve(make_identity(other, "master.example.com", "DNS:master.example.com"),
          [](const WireRequest&) { return answer(200, ""); });
    EXPECT_EQ(failure(60), "SSL certificate problem: unable to get local issuer certificate");
}

TEST_F(QvClientFailure, WhereTheServiceDoesNotSpeakTls) {
    const FileDescriptor listener = listen_on("127.0.0.1", 1556);
    std::thread service([&] {
        const FileDescriptor connection(accept(listener.get(), nullptr, nullptr));
        EXPECT_GT(write(connection.get(), "HTTP/1.1 200 OK\r\n\r\n", 19), 0);
    });
    EXPECT_NE(failure(35), "");
    service.join();
}

TEST_F(QvClientFailure, WhereTheServiceDoesNotGetThroughToAConnectionInTime) {
    const FileDescriptor listener = listen_on("127.0.0.1", 1556); // takes the connection and says nothing
    Client client;
    client.setConnectTimeout(1);
    EXPECT_NE(failure(client, TIMED_OUT), "");
}

// The wait is too long for a test, so the options are checked.
TEST_F(QvClientFailure, WhereNothingMovesFor300Seconds) {
    Client client;
    for (int time = 1; time <= 2; ++time) {
        long_options.clear();
        failure(client, CANNOT_CONNECT);
        EXPECT_EQ(long_options[CURLOPT_LOW_SPEED_TIME], 300) << time;
        EXPECT_EQ(long_options[CURLOPT_LOW_SPEED_LIMIT], 1) << time;
    }
}

TEST_F(QvClientFailure, OfHalfAnAnswer) {
    serve("HTTP/1.1 200 OK\r\nContent-Length: 100\r\nConnection: close\r\n\r\nhalf");
    EXPECT_NE(failure(HALF_AN_ANSWER), "");
}

TEST_F(QvClientFailure, OfAnAnswerThatEndsBetweenPieces) {
    serve("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nConnection: close\r\n\r\n5\r\nabcde\r\n");
    EXPECT_NE(failure(HALF_AN_ANSWER), "");
}

TEST_F(QvClientFailure, OfNoAnswerAtAll) {
    serve("");
    EXPECT_EQ(failure(NO_ANSWER), "Empty reply from server");
}

TEST_F(QvClientFailure, OfAnAnswerThatIsNotHttp) {
    serve("hello\r\n");
    EXPECT_EQ(failure(UNSUPPORTED_PROTOCOL), "Received HTTP/0.9 when not allowed");
}

TEST_F(QvClientFailure, OfABodyThatCannotBeUnpacked) {
    serve(answer(200, "this is not gzip", "Content-Encoding: gzip\r\n"));
    EXPECT_NE(failure(CANNOT_UNPACK), "");
}

TEST_F(QvClientFailure, OfAnInvalidHost) {
    for (const std::string& host :
         {std::string(""), std::string(" "), std::string("master.example.com/x"),
          std::string("master.example.com?x"), std::string("master.example.com#x"),
          std::string("user@master.example.com"), std::string("user:word@master.example.com"),
          std::string("master.example.com\\x"), std::string("master.example.com x"),
          std::string("master.example.com\r\nX: y"), std::string("[::1]"), std::string("::1]/x?["),
          std::string("master.example.com:99"), std::string("::zz"), std::string("master%2fexample"),
          std::string("master.example.com\0x", 20), std::string("a\tb"),
          std::string("master.example.com\x7f")}) {
        Client client(host);
        EXPECT_NE(failure(client, BAD_URL), "") << host;
    }
}

TEST_F(QvClientFailure, OfATimeoutThatIsNone) {
    Client client;
    failure(client, CANNOT_CONNECT);
    serve(answer(200, ""));
    client.setConnectTimeout(-1);
    EXPECT_EQ(failure(client, BAD_OPTION), "A libcurl function was given a bad argument")
        << "an option that libcurl refuses ends the request, and nothing is told of the request before";
    EXPECT_EQ(server_->connections(), 0);
}

TEST_F(QvClientFailure, DoesNotSpoilTheNextRequest) {
    std::atomic<int> count{0};
    serve(master_, [&](const WireRequest&) { return ++count == 1 ? std::string() : answer(200, "well"); });
    Client client;
    EXPECT_EQ(client.get("1"), NO_ANSWER);
    EXPECT_EQ(client.get("2"), 0);
    EXPECT_EQ(client.httpResponseCode, 200);
    EXPECT_EQ(client.responseBody, "well");
}

TEST_F(QvClientFailure, IsReportedByEveryOperation) {
    Client client;
    EXPECT_EQ(client.post("x", "{}"), CANNOT_CONNECT);
    EXPECT_EQ(client.postStream("x", "{}"), CANNOT_CONNECT);
    EXPECT_EQ(client.put("x", "{}"), CANNOT_CONNECT);
    EXPECT_EQ(client.get("x"), CANNOT_CONNECT);
    EXPECT_EQ(client.del("x"), CANNOT_CONNECT);
    EXPECT_EQ(log_.records().size(), 5U);
}

TEST_F(QvClientFailure, IsSilentWithoutALog) {
    close_debug_log();
    EXPECT_EQ(Client().get("x"), CANNOT_CONNECT);
}

using QvClientLongAnswer = QvClientFailure;

TEST_F(QvClientLongAnswer, IsUnpacked) {
    serve(answer(200, packed_zeros(1000000), "Content-Encoding: deflate\r\n"));
    Client client;
    ASSERT_EQ(client.get("x"), 0);
    EXPECT_TRUE(client.responseBody == std::string(1000000, '0'));
}

TEST_F(QvClientLongAnswer, MayUnpackToTheLimit) {
    serve(answer(200, packed_zeros(MAX_ANSWER), "Content-Encoding: deflate\r\n"));
    Client client;
    ASSERT_EQ(client.get("x"), 0);
    EXPECT_EQ(client.responseBody.size(), MAX_ANSWER);
}

TEST_F(QvClientLongAnswer, IsRefusedWhenItUnpacksToMore) {
    serve(answer(200, packed_zeros(MAX_ANSWER + 1), "Content-Encoding: deflate\r\n"));
    EXPECT_THAT(failure(ANSWER_REFUSED), MatchesRegex(".*: the answer is longer than 536870912 bytes"));
}

TEST_F(QvClientLongAnswer, IsRefusedAtOnceWhenItAnnouncesMore) {
    serve("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(MAX_ANSWER + 1) + "\r\n\r\nfirst bytes");
    EXPECT_EQ(failure(ANNOUNCED_TOO_LONG), "Maximum file size exceeded");
}

TEST_F(QvClientLongAnswer, MayAnnounceTheLimit) {
    serve("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: " + std::to_string(MAX_ANSWER) +
          "\r\n\r\nfirst bytes");
    EXPECT_NE(failure(HALF_AN_ANSWER), "") << "taken up to where it broke off";
}

} // namespace
