// The web service as a test scripts it: takes the place of the real QVClientCURL in a test program, records
// every request, and answers with what the test has lined up. A request without an answer fails the test.

#ifndef TESTS_SUPPORT_SCRIPTED_SERVICE_H
#define TESTS_SUPPORT_SCRIPTED_SERVICE_H

#include <deque>
#include <ostream>
#include <string>
#include <vector>

struct SentRequest {
    std::string method;
    std::string uri;
    std::string body;

    bool operator==(const SentRequest& other) const {
        return method == other.method && uri == other.uri && body == other.body;
    }
};

inline std::ostream& operator<<(std::ostream& out, const SentRequest& request) {
    return out << request.method << " " << request.uri << " " << request.body;
}

struct ScriptedAnswer {
    long code;
    std::string body;
    int result = 0; // of the client: not 0 means that no exchange took place
    int thrown = 0; // a status that the client throws instead
    int raised = 0; // a signal that arrives while the service works
};

struct ScriptedService {
    std::deque<ScriptedAnswer> answers;
    std::vector<SentRequest> requests;

    // What the client of the last request was made with.
    std::string host;
    int port = 0;
    std::string accept;
    long connectTimeout = 0;
    int clients = 0; // made so far
    int alive = 0;   // not destroyed yet
    int most_alive = 0;

    void reset() { *this = ScriptedService(); }
};

ScriptedService& service();

#endif
