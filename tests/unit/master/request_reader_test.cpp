#include "master/request_reader.h"

#include <gtest/gtest.h>

namespace {

const std::string HEAD = "POST /a?b HTTP/1.1\r\nhost: x\r\nAccept:  a \r\nContent-Type: c\r\n";
const std::string CHUNKED =
    HEAD + "Transfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n2;x=y\r\nde\r\n0\r\nX: y\r\n\r\n";

// Gives `bytes` to the reader, `size` at a time, until it has a whole request; false where it asks for more.
bool read(RequestReader& reader, const std::string& bytes, std::size_t size) {
    bool has_head = false;
    for (std::size_t i = 0; i < bytes.size(); i += size) {
        reader.append(bytes.substr(i, size));
        has_head = has_head || reader.read_head();
        if (has_head && (reader.refusal() != 0 || !reader.has_body() || reader.read_body())) {
            reader.append(bytes.substr(std::min(i + size, bytes.size())));
            return true;
        }
    }
    return false;
}

TEST(RequestReader, ReadsTheSameRequestsFromPiecesOfAnySize) {
    for (const std::string& first : {CHUNKED, HEAD + "Content-Length: 5\r\n\r\nabcde"})
        for (std::size_t size = 1; size <= first.size(); ++size) {
            RequestReader reader;
            ASSERT_TRUE(reader.is_idle());
            ASSERT_TRUE(read(reader, first + "GET / HTTP/1.1\r\nHost: x\r\n\r\n", size)) << size;
            const ServiceRequest& request = reader.request();
            ASSERT_EQ(request.method + request.target + request.accept + request.contentType, "POST/a?bac");
            ASSERT_EQ(request.body, "abcde");
            ASSERT_TRUE(reader.can_reuse());
            reader.next();
            ASSERT_FALSE(reader.is_idle());
            ASSERT_TRUE(reader.read_head());
            ASSERT_EQ(reader.refusal(), 0);
            ASSERT_EQ(reader.request().target + reader.request().body, "/");
            reader.next();
            ASSERT_TRUE(reader.is_idle());
        }
}

TEST(RequestReader, RefusesAHeadAsSoonAsItsLinesEndWrongly) {
    for (const std::string text : {"\n", "GET / HTTP/1.1\n", "GET / HTTP/1.1\r\nHost: x\n", "\r\n"}) {
        RequestReader reader;
        EXPECT_TRUE(read(reader, text, 1)) << text;
        EXPECT_EQ(reader.refusal(), 400) << text;
    }
}

TEST(RequestReader, TellsWhatItKnowsOfARequestThatItRefuses) {
    RequestReader reader;
    ASSERT_TRUE(read(reader, HEAD + "X: " + std::string(MAX_HEAD, 'y'), 1000));
    EXPECT_EQ(reader.refusal(), 431);
    EXPECT_EQ(reader.request().method + reader.request().target, "POST/a?b");
}

struct Ending {
    const char* head;
    bool reuse;
};

TEST(RequestReader, LetsAnotherRequestFollowOnlyWhereTheEndOfThisOneIsKnown) {
    const std::vector<Ending> endings{{"GET / HTTP/1.1\r\nHost: x\r\n\r\n", true},
                                      {"GET / HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n\r\n", true},
                                      {"GET / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n", false},
                                      {"GET / HTTP/1.1\r\nHost: x\r\nContent-Length: 1\r\n\r\n", false},
                                      {"GET / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n", false},
                                      {"GET / HTTP/1.1\r\n\r\n", false}};
    for (const Ending& ending : endings) {
        RequestReader reader;
        reader.append(ending.head);
        ASSERT_TRUE(reader.read_head()) << ending.head;
        EXPECT_EQ(reader.can_reuse(), ending.reuse) << ending.head;
    }
}

TEST(RequestReader, KeepsNoMoreThanItsLimitsInMemoryBetweenChunks) {
    RequestReader reader;
    ASSERT_TRUE(
        read(reader, HEAD + "Transfer-Encoding: chunked\r\n\r\n1;" + std::string(2 * MAX_HEAD, 'x'), 1000));
    EXPECT_EQ(reader.refusal(), 400);
}

} // namespace
