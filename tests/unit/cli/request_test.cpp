#include "cli/request.h"
#include "platform/QVClientCURL.h"
#include "tests/support/command_world.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* SEND = "curlSendRequest";
constexpr const char* PARSE = "parseJSONErrorResponse";

// A client whose four operations are the test's own, as any tool of the platform may derive one.
class OwnClient : public QVClientCURL {
  public:
    OwnClient()
        : QVClientCURL("h", 1, 1, 1, nullptr, "", true, false, false, "", "", "", "", "", "", false, NO, "",
                       0) {}
    int post(const std::string& uri, const std::string& body) override {
        return note("post " + uri + " " + body);
    }
    int put(const std::string& uri, const std::string& body) override {
        return note("put " + uri + " " + body);
    }
    int get(const std::string& uri) override { return note("get " + uri); }
    int del(const std::string& uri) override { return note("del " + uri); }

    std::vector<std::string> calls;
    int result = 0;

  private:
    int note(const std::string& call) {
        calls.push_back(call);
        httpResponseCode = 200;
        responseBody = "the body";
        return result;
    }
    static constexpr bool NO = false;
};

class Request : public CommandWorld {
  protected:
    int send(curl_request_type type, long expected, const std::string& body = "",
             const std::string& uri = "some/uri") {
        return curlSendRequest(client_, uri, type, body, response_, expected);
    }

    OwnClient client_;
    std::string response_ = "before";
};

TEST_F(Request, CallsTheOperationOfItsType) {
    EXPECT_EQ(send(CURL_REQUEST_GET, 200, "b"), 0);
    EXPECT_EQ(send(CURL_REQUEST_PUT, 200, "b"), 0);
    EXPECT_EQ(send(CURL_REQUEST_POST, 200, "b"), 0);
    EXPECT_EQ(send(CURL_REQUEST_DELETE, 200, "b"), 0);
    EXPECT_THAT(client_.calls,
                ElementsAre("get some/uri", "put some/uri b", "post some/uri b", "del some/uri"));
    EXPECT_EQ(static_cast<int>(CURL_REQUEST_GET), 0);
    EXPECT_EQ(static_cast<int>(CURL_REQUEST_PUT), 1);
    EXPECT_EQ(static_cast<int>(CURL_REQUEST_POST), 2);
    EXPECT_EQ(static_cast<int>(CURL_REQUEST_DELETE), 3);
}

TEST_F(Request, AcceptsTheVersionedMediaTypeAndWaits30SecondsForAConnectionEachTime) {
    const bool no = false;
    QVClientCURL client("h", 1, 1, 1, nullptr, "", true, false, false, "", "", "", "", "", "", false, no, "",
                        0);
    for (int time = 1; time <= 2; ++time) {
        client.setupAcceptCurlOption("Accept: another");
        client.setConnectTimeout(99);
        answer(200, "");
        EXPECT_EQ(curlSendRequest(client, "u", CURL_REQUEST_GET, "", response_, 200), 0);
        EXPECT_EQ(service().accept, "Accept: application/vnd.quorvelle+json;version=6.0") << time;
        EXPECT_EQ(service().connectTimeout, 30) << time;
    }
    EXPECT_EQ(QV_MEDIA_TYPE_VERSION, "application/vnd.quorvelle+json;version=6.0");
}

TEST_F(Request, CopiesTheBodyOutAndLogsTheExchange) {
    EXPECT_EQ(send(CURL_REQUEST_POST, 200, "question"), 0);
    EXPECT_EQ(response_, "the body");
    EXPECT_EQ(client_.responseBody, "the body");
    EXPECT_THAT(
        log_.records(),
        ElementsAre(LogRecord{2, SEND, "Sending curl request with URI : some/uri."},
                    LogRecord{2, SEND, "Request body: question."},
                    LogRecord{2, SEND, "Http response body: the body"},
                    LogRecord{2, SEND, "Actual http response code: 200 , expected http response code: 200"}));
}

TEST_F(Request, DoesNotLogAnEmptyBody) {
    send(CURL_REQUEST_GET, 200);
    EXPECT_EQ(log_.records()[1].text, "Http response body: the body");
}

TEST_F(Request, WithoutAUriIsRefused) {
    EXPECT_EQ(send(CURL_REQUEST_GET, 200, "", ""), 20);
    EXPECT_THAT(client_.calls, IsEmpty());
    EXPECT_EQ(response_, "before");
    EXPECT_THAT(log_.records(), ElementsAre(LogRecord{2, SEND, "URI is empty."}));
}

TEST_F(Request, OfAnUnknownTypeIsRefused) {
    EXPECT_EQ(send(static_cast<curl_request_type>(4), 200), 20);
    EXPECT_THAT(client_.calls, IsEmpty());
    EXPECT_EQ(response_, "before");
    EXPECT_THAT(
        log_.records(),
        ElementsAre(LogRecord{2, SEND, "Sending curl request with URI : some/uri."},
                    LogRecord{2, SEND, "Unknown Request Type."},
                    LogRecord{16, SEND, "Failed to perform curl request for URI : some/uri.  retval : 20"}));
    EXPECT_EQ(send(static_cast<curl_request_type>(-1), 200), 20);
}

TEST_F(Request, WithoutAnExchangeReturnsTheClientsCode) {
    client_.result = 28;
    EXPECT_EQ(send(CURL_REQUEST_GET, 200), 28);
    EXPECT_EQ(response_, "before");
    EXPECT_THAT(
        log_.records(),
        ElementsAre(LogRecord{2, SEND, "Sending curl request with URI : some/uri."},
                    LogRecord{16, SEND, "Failed to perform curl request for URI : some/uri.  retval : 28"}));
}

struct RefusalCase {
    const char* body;
    int status;
};

TEST_F(Request, AnsweredWithAnotherCodeReturnsTheServicesErrorCode) {
    const RefusalCase cases[] = {
        {R"({"errorCode": 7220, "errorMessage": "x"})", 7220},
        {R"({"errorCode": 0, "errorMessage": "x"})", 0}, // counts as a success
        {R"({"errorCode": -5, "errorMessage": "x"})", -5},
        {R"({"errorCode": 8000, "errorMessage": "x"} and trailing text)", 8000},
        {R"({"errorCode": 4294967297, "errorMessage": "x"})", 1}, // low 32 bits
        {R"({"errorCode": 4294967295, "errorMessage": "x"})", -1},
        {R"({"errorCode": "7220", "errorMessage": "x"})", 9103},
        {R"({"errorCode": 7220.0, "errorMessage": "x"})", 9103},
        {R"({"errorCode": 7220})", 9103},
        {R"({"errorCode": 7220, "errorMessage": 5})", 9103},
        {R"({"errorMessage": "x"})", 9103},
        {R"([])", 9103},
        {"", 9103},
        {"<html>", 9103},
    };
    for (const RefusalCase& one : cases) {
        const bool no = false;
        QVClientCURL client("h", 1, 1, 1, nullptr, "", true, false, false, "", "", "", "", "", "", false, no,
                            "", 0);
        answer(500, one.body);
        EXPECT_EQ(curlSendRequest(client, "u", CURL_REQUEST_GET, "", response_, 200), one.status) << one.body;
        EXPECT_EQ(response_, one.body);
    }
}

TEST_F(Request, ExpectingA404IsASuccessWithItsBody) {
    const bool no = false;
    QVClientCURL client("h", 1, 1, 1, nullptr, "", true, false, false, "", "", "", "", "", "", false, no, "",
                        0);
    answer(404, R"({"errorCode": 227, "errorMessage": "x"})");
    EXPECT_EQ(curlSendRequest(client, "u", CURL_REQUEST_DELETE, "", response_, 404), 0);
    EXPECT_EQ(response_, R"({"errorCode": 227, "errorMessage": "x"})");
}

TEST(ErrorResponse, ReturnsTheCodeAndLogsTheMessage) {
    LogCapture log;
    long code = 0;
    EXPECT_EQ(parseJSONErrorResponse(R"({"errorCode": 7220, "errorMessage": "gone"})", code), 0);
    EXPECT_EQ(code, 7220);
    EXPECT_THAT(log.records(), ElementsAre(LogRecord{16, PARSE, "Error code returned by server is : 7220."},
                                           LogRecord{16, PARSE, "Error message returned by server: gone."}));
}

TEST(ErrorResponse, ThatIsNotJsonIsLoggedWhole) {
    LogCapture log;
    long code = 5;
    EXPECT_EQ(parseJSONErrorResponse("<html>", code), 9103);
    EXPECT_EQ(code, 5);
    EXPECT_THAT(
        log.records(),
        ElementsAre(LogRecord{
            16, PARSE, "Failed to parse error response received from server. Error response is: <html>."}));
}

TEST(ErrorResponse, WithoutACodeIsUnusable) {
    for (const char* body : {"{}", R"({"errorCode": "7220", "errorMessage": "x"})", "[7220]"}) {
        LogCapture log;
        long code = 5;
        EXPECT_EQ(parseJSONErrorResponse(body, code), 9103) << body;
        EXPECT_EQ(code, 5) << body;
        EXPECT_THAT(log.records(), ElementsAre(LogRecord{16, PARSE, "No error code in response."})) << body;
    }
}

TEST(ErrorResponse, WithoutAMessageIsUnusableThoughItsCodeIsStored) {
    LogCapture log;
    long code = 5;
    EXPECT_EQ(parseJSONErrorResponse(R"({"errorCode": 7220})", code), 9103);
    EXPECT_EQ(code, 7220);
    EXPECT_THAT(log.records(), ElementsAre(LogRecord{16, PARSE, "Error code returned by server is : 7220."},
                                           LogRecord{16, PARSE, "No message in error response."}));
}

} // namespace
