// The client when memory runs out: the request fails with libcurl's number, and the next one works.

#include "tests/unit/platform/qvclient_fixture.h"

#include <curl/curl.h>

#include <cstdint>
#include <cstdlib>
#include <new>
#include <utility>

namespace {

constexpr int CANNOT_SET_UP = 2;
constexpr int ANSWER_REFUSED = 23;
constexpr int OUT_OF_MEMORY = 27;

// The most that this thread gets in one piece: the service of the test runs in another.
thread_local std::size_t largest_allocation = SIZE_MAX;

bool next_handle_fails = false;
bool next_header_fails = false;

} // namespace

// Not inlined: a compiler that sees malloc inside new, or free inside delete, takes the pair for mismatched.
__attribute__((noinline)) void* operator new(std::size_t size) {
    void* memory = size <= largest_allocation ? std::malloc(size == 0 ? 1 : size) : nullptr;
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}
__attribute__((noinline)) void operator delete(void* memory) noexcept {
    std::free(memory);
}
__attribute__((noinline)) void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's --wrap gives these
// names
extern "C" {

CURL* __real_curl_easy_init();
curl_slist* __real_curl_slist_append(curl_slist*, const char*);

CURL* __wrap_curl_easy_init() {
    return std::exchange(next_handle_fails, false) ? nullptr : __real_curl_easy_init();
}

curl_slist* __wrap_curl_slist_append(curl_slist* list, const char* text) {
    return std::exchange(next_header_fails, false) ? nullptr : __real_curl_slist_append(list, text);
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace {

class QvClientMemory : public QvClient {
  protected:
    void SetUp() override {
        QvClient::SetUp();
        serve(answer(200, std::string(100000, 'x')));
    }

    // The next request of `client_` has to fail with `expected` and leave no results.
    void expect_failure(int expected) {
        client_.httpResponseCode = 999;
        client_.responseBody = "left over";
        EXPECT_EQ(client_.get("x"), expected);
        EXPECT_EQ(client_.httpResponseCode, 0);
        EXPECT_EQ(client_.responseBody, "");
    }

    void expect_that_the_next_request_works() {
        EXPECT_EQ(client_.get("x"), 0);
        EXPECT_EQ(client_.httpResponseCode, 200);
        EXPECT_EQ(client_.responseBody, std::string(100000, 'x'));
    }

    Client client_;
};

TEST_F(QvClientMemory, TooLittleToBeginFailsTheRequestAlone) {
    next_handle_fails = true;
    expect_failure(CANNOT_SET_UP);
    EXPECT_EQ(server_->connections(), 0);
    expect_that_the_next_request_works();
}

TEST_F(QvClientMemory, TooLittleForAHeaderSendsNothing) {
    client_.setupAcceptCurlOption("Accept: x");
    next_header_fails = true;
    expect_failure(OUT_OF_MEMORY);
    EXPECT_EQ(server_->connections(), 0);
    expect_that_the_next_request_works();
}

TEST_F(QvClientMemory, TooLittleForTheAnswerEndsTheTransfer) {
    largest_allocation = 50000;
    expect_failure(ANSWER_REFUSED);
    largest_allocation = SIZE_MAX;
    expect_that_the_next_request_works();
}

} // namespace
