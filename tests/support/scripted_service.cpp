#include "tests/support/scripted_service.h"

#include "platform/QVClientCURL.h"

#include <algorithm>
#include <csignal>

#include <gtest/gtest.h>

ScriptedService& service() {
    static ScriptedService scripted;
    return scripted;
}

struct QVClientCURL::Transfer {
    std::string host;
    int port;
    std::string accept;
    long connectTimeout = 0;

    int send(QVClientCURL& client, const SentRequest& request) const {
        service().requests.push_back(request);
        service().host = host;
        service().port = port;
        service().accept = accept;
        service().connectTimeout = connectTimeout;
        client.httpResponseCode = 0;
        client.responseBody.clear();
        if (service().answers.empty()) {
            ADD_FAILURE() << "unexpected request " << request;
            return 7;
        }
        const ScriptedAnswer answer = service().answers.front();
        service().answers.pop_front();
        if (answer.raised != 0)
            static_cast<void>(std::raise(answer.raised));
        if (answer.thrown != 0)
            throw answer.thrown;
        if (answer.result == 0) {
            client.httpResponseCode = answer.code;
            client.responseBody = answer.body;
        }
        return answer.result;
    }
};

QVClientCURL::QVClientCURL(const std::string& host, int port, cert_type certificate,
                           QVCurlSessionType session, TokenManager_Base* tokens, const std::string& text1,
                           bool flag1, bool flag2, bool flag3, const std::string& text2,
                           const std::string& text3, const std::string& text4, const std::string& text5,
                           const std::string& text6, const std::string& text7, bool flag4, const bool& flag5,
                           const std::string& text8, int number)
    : transfer_(new Transfer{host, port, ""}) {
    EXPECT_EQ(certificate, 1);
    EXPECT_EQ(session, 1);
    EXPECT_EQ(tokens, nullptr);
    EXPECT_EQ(text1 + text2 + text3 + text4 + text5 + text6 + text7 + text8, "");
    EXPECT_TRUE(flag1);
    EXPECT_FALSE(flag2 || flag3 || flag4 || flag5);
    EXPECT_EQ(number, 0);
    ++service().clients;
    service().most_alive = std::max(service().most_alive, ++service().alive);
}

QVClientCURL::~QVClientCURL() {
    --service().alive;
}

int QVClientCURL::post(const std::string& uri, const std::string& body) {
    return transfer_->send(*this, {"POST", uri, body});
}
int QVClientCURL::postStream(const std::string& uri, const std::string& body) {
    return transfer_->send(*this, {"POSTSTREAM", uri, body});
}
int QVClientCURL::put(const std::string& uri, const std::string& body) {
    return transfer_->send(*this, {"PUT", uri, body});
}
int QVClientCURL::get(const std::string& uri) {
    return transfer_->send(*this, {"GET", uri, ""});
}
int QVClientCURL::del(const std::string& uri) {
    return transfer_->send(*this, {"DELETE", uri, ""});
}

void QVClientCURL::setupAcceptCurlOption(std::string header) {
    transfer_->accept = std::move(header);
}
void QVClientCURL::setConnectTimeout(long seconds) {
    transfer_->connectTimeout = seconds;
}
