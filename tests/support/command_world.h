// The world of a repository command: a healthy master server, made of the replaced seam, the scripted service
// and a configuration of the test's choice. A test breaks one thing and watches what the command does.

#ifndef TESTS_SUPPORT_COMMAND_WORLD_H
#define TESTS_SUPPORT_COMMAND_WORLD_H

#include "platform/master_config.h"
#include "tests/support/fake_seam.h"
#include "tests/support/log_capture.h"
#include "tests/support/package_json.h"
#include "tests/support/scripted_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

// What get_master_config_ptr answers in a test program; null for "no record".
void set_master_config(const master_config* config);

extern const std::string HELP_TEXT;

class CommandWorld : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // The records after those of the start-up checks, which every command writes first.
    std::vector<LogRecord> records_after_startup() const;

    // The requests sent, and the seam calls made, after the start-up checks.
    std::vector<std::string> calls_after_startup() const;

    static void answer(long code, const std::string& body) { service().answers.push_back({code, body}); }
    static void answer_error(long code, int errorCode) {
        answer(code,
               R"({"errorCode": )" + std::to_string(errorCode) + R"(, "errorMessage": "said the service"})");
    }
    static void no_exchange(int result) { service().answers.push_back({0, "", result}); }

    LogCapture log_;
    std::ostringstream out_;
};

// What is printed, and how many clients there were when the last of it was.
class ClientsWhilePrinting : public std::stringbuf {
  public:
    int clients = 0;

  protected:
    std::streamsize xsputn(const char* text, std::streamsize length) override {
        clients = service().alive;
        return std::stringbuf::xsputn(text, length);
    }
};

// The records that curlSendRequest writes for one exchange with the answer's code as expected.
std::vector<LogRecord> exchange_records(const std::string& uri, const std::string& requestBody,
                                        const std::string& responseBody, long code, long expected);

// One list of records after another.
std::vector<LogRecord> operator+(std::vector<LogRecord> first, const std::vector<LogRecord>& second);

#endif
