// What the client puts on the wire, and what it takes from it.

#include "tests/unit/platform/qvclient_fixture.h"

namespace {

constexpr const char* ACCEPT = "Accept: application/vnd.quorvelle+json;version=6.0";

TEST_F(QvClient, SendsAGet) {
    serve(answer(200, "{}"));
    Client client;
    client.setupAcceptCurlOption(ACCEPT);
    ASSERT_EQ(client.get("quorvelle/deployment/packages"), 0);
    EXPECT_EQ(request().head, "GET /quorvelle/deployment/packages HTTP/1.1\r\n"
                              "Host: master.example.com:1556\r\n"
                              "User-Agent: qvrepo/" QVREPO_VERSION "\r\n"
                              "Accept-Encoding: " +
                                  request().header("accept-encoding") +
                                  "\r\n"
                                  "Accept: application/vnd.quorvelle+json;version=6.0\r\n");
    EXPECT_EQ(request().body, "");
    EXPECT_EQ(client.httpResponseCode, 200);
    EXPECT_EQ(client.responseBody, "{}");
}

TEST_F(QvClient, SendsADelete) {
    serve(answer(404, "gone"));
    Client client;
    ASSERT_EQ(client.del("packages/7"), 0);
    EXPECT_EQ(request().line(), "DELETE /packages/7 HTTP/1.1");
    EXPECT_EQ(request().header("content-type"), "(none)");
    EXPECT_EQ(request().header("content-length"), "(none)");
    EXPECT_EQ(client.httpResponseCode, 404);
    EXPECT_EQ(client.responseBody, "gone");
}

TEST_F(QvClient, SendsAnAnswerlessDelete) {
    serve("HTTP/1.1 204 No Content\r\n\r\n");
    Client client;
    ASSERT_EQ(client.del("packages/7"), 0);
    EXPECT_EQ(client.httpResponseCode, 204);
    EXPECT_EQ(client.responseBody, "");
}

TEST_F(QvClient, SendsBodiesAsJson) {
    const std::string body("{\"name\": \"\xc3\xa9\0\r\n\"}", 17);
    struct Row {
        int (QVClientCURL::*operation)(const std::string&, const std::string&);
        const char* method;
    };
    for (const Row& row : {Row{&QVClientCURL::post, "POST"}, Row{&QVClientCURL::postStream, "POST"},
                           Row{&QVClientCURL::put, "PUT"}}) {
        serve(answer(201, "made"));
        Client client;
        ASSERT_EQ((client.*row.operation)("packages", body), 0) << row.method;
        EXPECT_EQ(request().line(), std::string(row.method) + " /packages HTTP/1.1");
        EXPECT_EQ(request().header("content-type"), "application/json");
        EXPECT_EQ(request().header("content-length"), std::to_string(body.size()));
        EXPECT_EQ(request().body, body);
        EXPECT_EQ(client.httpResponseCode, 201);
        EXPECT_EQ(client.responseBody, "made");
    }
}

TEST_F(QvClient, SendsAnEmptyBodyAsABody) {
    serve(answer(201, ""));
    Client client;
    ASSERT_EQ(client.post("packages", ""), 0);
    EXPECT_EQ(request().line(), "POST /packages HTTP/1.1");
    EXPECT_EQ(request().header("content-length"), "0");
}

TEST_F(QvClient, SendsALongBodyAtOnceWithoutAskingFirst) {
    serve(answer(201, ""));
    Client client;
    const std::string body(3U << 20U, 'b');
    ASSERT_EQ(client.post("packages", body), 0);
    EXPECT_EQ(request().header("expect"), "(none)");
    EXPECT_TRUE(request().body == body);
}

TEST_F(QvClient, ReplacesTheAcceptHeaderOfAnEarlierCall) {
    serve(answer(200, ""));
    Client client;
    client.setupAcceptCurlOption("Accept: first");
    client.setupAcceptCurlOption("Accept: second");
    ASSERT_EQ(client.get("x"), 0);
    EXPECT_EQ(request().headers("accept"), std::vector<std::string>{"second"});
}

TEST_F(QvClient, KeepsTheAcceptHeaderForLaterRequests) {
    serve(answer(200, ""));
    Client client;
    client.setupAcceptCurlOption(ACCEPT);
    ASSERT_EQ(client.get("x"), 0);
    ASSERT_EQ(client.post("x", "{}"), 0);
    for (const WireRequest& sent : server_->requests())
        EXPECT_EQ(sent.header("accept"), "application/vnd.quorvelle+json;version=6.0") << sent.line();
}

TEST_F(QvClient, LetsNoHeaderStartAnotherOne) {
    serve(answer(200, ""));
    Client client;
    client.setupAcceptCurlOption("Accept: a\r\nX-Forged: 1\nX-Forged: 2");
    ASSERT_EQ(client.get("x HTTP/1.1\r\nX-Forged: 3\r\n\r\nGET /y"), 0);
    EXPECT_EQ(request().line(), "GET /x%20HTTP/1.1%0D%0AX-Forged:%203%0D%0A%0D%0AGET%20/y HTTP/1.1");
    EXPECT_EQ(request().header("x-forged"), "(none)");
    EXPECT_EQ(request().header("accept"), "aX-Forged: 1X-Forged: 2");
}

TEST_F(QvClient, EncodesWhatARequestLineCannotCarryAndNothingElse) {
    serve(answer(200, ""));
    std::string typed = "q?f=";
    std::string sent = "q?f=";
    for (int c = 0; c < 256; ++c) {
        typed += static_cast<char>(c);
        char encoded[4];
        static_cast<void>(std::snprintf(encoded, sizeof encoded, "%%%02X", static_cast<unsigned>(c)));
        const bool carried = c > 0x20 && c <= 0x7e && c != '#';
        sent += carried ? std::string(1, static_cast<char>(c)) : encoded;
    }
    Client client;
    ASSERT_EQ(client.get(typed), 0);
    EXPECT_EQ(request().line(), "GET /" + sent + " HTTP/1.1");
}

TEST_F(QvClient, SendsPathsAsTheyWereTyped) {
    for (const char* uri : {"", "/", "packages/../secret", "./x", "a//b", "a/./b?c=../d", "packages/%2e%2E/x",
                            "x?", "?x", "packages?filter=os eq 'linux'", "user:word@host/x",
                            "https://other.example.com/x", "a\\b", "{a,b}[1-3]", "x;y=z&w"}) {
        serve(answer(200, ""));
        Client client;
        ASSERT_EQ(client.get(uri), 0) << uri;
        std::string sent = uri;
        for (std::size_t at = 0; (at = sent.find(' ')) != std::string::npos;)
            sent.replace(at, 1, "%20");
        EXPECT_EQ(request().line(), "GET /" + sent + " HTTP/1.1");
        EXPECT_EQ(request().header("host"), "master.example.com:1556") << uri;
    }
}

TEST_F(QvClient, KeepsItsConnectionBetweenGetsAndClosesItBeforeItOpensOneForAChange) {
    serve(answer(200, "x"));
    Client client;
    ASSERT_EQ(client.get("1"), 0);
    ASSERT_EQ(client.get("2"), 0);
    EXPECT_EQ(server_->connections(), 1);
    ASSERT_EQ(client.post("3", "{}"), 0);
    ASSERT_EQ(client.get("4"), 0);
    EXPECT_EQ(server_->connections(), 3);
    ASSERT_EQ(client.put("5", "{}"), 0);
    ASSERT_EQ(client.postStream("6", "{}"), 0);
    ASSERT_EQ(client.del("7"), 0);
    EXPECT_EQ(server_->connections(), 6);
    EXPECT_EQ(server_->requests().size(), 7U);
}

TEST_F(QvClient, TakesNothingOfARequestOverToTheNext) {
    serve(answer(200, "x"));
    Client client;
    ASSERT_EQ(client.post("1", "{}"), 0);
    ASSERT_EQ(client.del("2"), 0);
    EXPECT_EQ(server_->requests()[1].line(), "DELETE /2 HTTP/1.1");
    EXPECT_EQ(server_->requests()[1].header("content-type"), "(none)");
    EXPECT_EQ(server_->requests()[1].body, "");
}

// libcurl would send it again over a connection that it keeps, as if the first one could not have taken
// effect.
TEST_F(QvClient, SendsAChangeOnceThoughTheServiceClosesWithoutAnAnswer) {
    const std::vector<std::function<int(Client&)>> changes = {
        [](Client& client) { return client.del("x"); }, [](Client& client) { return client.put("x", "{}"); },
        [](Client& client) { return client.post("x", "{}"); }};
    for (const auto& change : changes) {
        serve(master_, [](const WireRequest& request) {
            return request.line().substr(0, 4) == "GET " ? answer(200, "x") : std::string();
        });
        Client client;
        ASSERT_EQ(client.get("x"), 0);
        EXPECT_EQ(change(client), 52);
        ASSERT_EQ(server_->requests().size(), 2U) << server_->requests()[1].line();
    }
}

TEST_F(QvClient, ConnectsAgainAfterTheServiceClosed) {
    serve(answer(200, "x", "Connection: close\r\n"));
    Client client;
    ASSERT_EQ(client.get("1"), 0);
    ASSERT_EQ(client.get("2"), 0);
    EXPECT_EQ(server_->connections(), 2);
}

TEST_F(QvClient, SpeaksHttp11WithAServiceThatPrefersHttp2) {
    TlsServer::Options options;
    options.prefers_http2 = true;
    serve(
        master_, [](const WireRequest&) { return std::string(); }, options);
    Client().del("x");
    EXPECT_EQ(request().line(), "DELETE /x HTTP/1.1");
}

TEST_F(QvClient, DoesNotFollowARedirect) {
    serve(answer(302, "elsewhere", "Location: https://master.example.com:1556/elsewhere\r\n"));
    Client client;
    ASSERT_EQ(client.get("x"), 0);
    EXPECT_EQ(client.httpResponseCode, 302);
    EXPECT_EQ(client.responseBody, "elsewhere");
    EXPECT_EQ(request().line(), "GET /x HTTP/1.1");
}

TEST_F(QvClient, ReachesAddresses) {
    serve(answer(200, ""));
    Client four("127.0.0.1");
    ASSERT_EQ(four.get("x"), 0);
    EXPECT_EQ(request().header("host"), "127.0.0.1:1556");

    TlsServer::Options options;
    options.address = "::1";
    serve(
        master_, [](const WireRequest&) { return answer(200, ""); }, options);
    Client six("::1");
    ASSERT_EQ(six.get("x"), 0);
    EXPECT_EQ(request().header("host"), "[::1]:1556");
}

TEST_F(QvClient, TakesTheProxyNeitherFromTheEnvironmentNorAPasswordFromAFile) {
    const TemporaryDirectory home;
    write_file(home.path(".netrc"),
               "machine master.example.com login user password word\ndefault login d password w\n");
    const std::vector<const char*> proxies = {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"};
    const char* home_variable = std::getenv("HOME");
    const std::string old_home = home_variable == nullptr ? "/" : home_variable;
    setenv("HOME", home.path().c_str(), 1);
    setenv("NETRC", home.path(".netrc").c_str(), 1);
    for (const char* name : proxies)
        setenv(name, "http://127.0.0.1:9", 1);

    serve(answer(200, "direct"));
    Client client;
    EXPECT_EQ(client.get("x"), 0);
    EXPECT_EQ(client.responseBody, "direct");
    EXPECT_EQ(request().header("authorization"), "(none)");

    for (const char* name : proxies)
        unsetenv(name);
    unsetenv("NETRC");
    setenv("HOME", old_home.c_str(), 1);
}

TEST_F(QvClient, TakesABodyOfAnyBytesAndLength) {
    std::string body;
    while (body.size() < (5U << 20U))
        body += std::string("\0\xff\r\n line ", 10) + std::to_string(body.size());
    serve(answer(200, body));
    Client client;
    ASSERT_EQ(client.get("x"), 0);
    EXPECT_TRUE(client.responseBody == body);
}

TEST_F(QvClient, TakesAPackedBody) {
    // gzip's form of {"data": []}
    const std::string packed("\037\213\010\000\000\000\000\000\002\003\253\126\112\111\054\111\124\262\122"
                             "\210\216\255\005\000\270\170\275\046\014\000\000\000",
                             32);
    serve(answer(200, packed, "Content-Encoding: gzip\r\n"));
    Client client;
    ASSERT_EQ(client.get("x"), 0);
    EXPECT_EQ(client.responseBody, R"({"data": []})");
    EXPECT_NE(request().header("accept-encoding").find("gzip"), std::string::npos);
}

TEST_F(QvClient, TakesABodyInPieces) {
    serve("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nabcde\r\n3\r\nfgh\r\n0\r\n\r\n");
    Client client;
    ASSERT_EQ(client.get("x"), 0);
    EXPECT_EQ(client.responseBody, "abcdefgh");
}

TEST_F(QvClient, ResetsItsResultsWithEachRequest) {
    std::atomic<int> count{0};
    serve(master_, [&](const WireRequest&) {
        return ++count == 1 ? answer(200, "a long first body")
                            : std::string("HTTP/1.1 204 No Content\r\n\r\n");
    });
    Client client;
    ASSERT_EQ(client.get("1"), 0);
    ASSERT_EQ(client.responseBody, "a long first body");
    ASSERT_EQ(client.get("2"), 0);
    EXPECT_EQ(client.httpResponseCode, 204);
    EXPECT_EQ(client.responseBody, "");
    EXPECT_EQ(log_.records(), std::vector<LogRecord>{}) << "an exchange is the caller's to log";
}

} // namespace
