// Any bytes from a connection to the web service: requests are read the same whatever pieces they come in,
// and what is accepted has one reading only of where it ends.

#include "master/request_reader.h"
#include "tests/fuzz/support/property.h"

#include <algorithm>
#include <cctype>
#include <vector>

namespace {

// A request, or the refusal that ended the connection.
struct Read {
    int refusal;
    std::string text;

    bool operator==(const Read& other) const { return refusal == other.refusal && text == other.text; }
};

int count_lines(std::string head, std::string name) {
    std::transform(head.begin(), head.end(), head.begin(), [](unsigned char c) { return std::tolower(c); });
    name = "\r\n" + name;
    int count = 0;
    for (std::size_t i = head.find(name); i != std::string::npos; i = head.find(name, i + 1))
        ++count;
    return count;
}

// `bytes` begin with a request that was accepted.
void check_accepted(const std::string& bytes) {
    const std::string head = bytes.substr(0, bytes.find("\r\n\r\n"));
    require(head.size() < MAX_HEAD && head.size() < bytes.size(), "a head ends within its limit");
    const std::string line = head.substr(0, head.find("\r\n"));
    const bool http_1_0 = line.substr(line.rfind(' ')) == " HTTP/1.0";
    const int hosts = count_lines(head, "host:");
    require(hosts == 1 || (hosts == 0 && http_1_0), "there is one host");
    const int encodings = count_lines(head, "transfer-encoding:");
    require(count_lines(head, "content-length:") + encodings <= 1, "there is one end");
    require(!http_1_0 || encodings == 0, "HTTP/1.0 knows no chunks");
    require(count_lines(head, " ") + count_lines(head, "\t") == 0, "no line is folded");
    for (std::size_t i = head.find('\n'); i != std::string::npos; i = head.find('\n', i + 1))
        require(i > 0 && head[i - 1] == '\r', "no line feed is bare");
}

std::vector<Read> read_all(const std::string& bytes, std::size_t size, bool check) {
    std::vector<Read> requests;
    RequestReader reader;
    std::size_t received = 0;
    bool has_head = false;
    for (;;) {
        has_head = has_head || reader.read_head();
        if (!has_head || (reader.refusal() == 0 && reader.has_body() && !reader.read_body())) {
            if (received == bytes.size())
                return requests;
            const std::string piece = bytes.substr(received, size);
            reader.append(piece);
            received += piece.size();
            continue;
        }
        const ServiceRequest& request = reader.request();
        require(request.body.size() <= MAX_BODY, "a body ends within its limit");
        if (reader.refusal() != 0) {
            requests.push_back({reader.refusal(), ""});
            return requests;
        }
        if (check)
            check_accepted(bytes);
        requests.push_back(
            {0, request.method + ' ' + request.target + ' ' + request.accept + '\n' + request.body});
        reader.next();
        check = false; // where the next one begins, only the reader knows
        has_head = false;
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes = as_text(data, size);
    const std::vector<Read> whole = read_all(bytes, bytes.size() + 1, true);
    for (const std::size_t piece : {std::size_t{1}, std::size_t{7}})
        require(read_all(bytes, piece, false) == whole, "pieces do not change what is read");
    return 0;
}
