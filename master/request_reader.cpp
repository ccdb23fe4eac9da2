#include "master/request_reader.h"

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

#include <algorithm>
#include <vector>

namespace beast = boost::beast;
namespace http = boost::beast::http;

namespace {

constexpr std::string_view LINE_END = "\r\n";

bool is_control(unsigned char c) {
    return (c < 0x20 && c != '\t') || c == 0x7f;
}

std::string_view trim(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    return text.substr(0, text.find_last_not_of(" \t") + 1);
}

bool is_number(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

bool exceeds(std::string_view number, std::size_t limit) {
    number.remove_prefix(std::min(number.find_first_not_of('0'), number.size()));
    return number.size() > 15 || (!number.empty() && std::stoull(std::string(number)) > limit);
}

// The lines of a head, without the empty one that ends it.
std::vector<std::string_view> split_lines(std::string_view head) {
    std::vector<std::string_view> lines;
    for (std::size_t end = head.find(LINE_END); end != 0; end = head.find(LINE_END)) {
        lines.push_back(head.substr(0, end));
        head.remove_prefix(end + LINE_END.size());
    }
    return lines;
}

// The values of all header lines of this name.
std::vector<std::string_view> values_of(beast::string_view name, const std::vector<std::string_view>& lines) {
    std::vector<std::string_view> values;
    for (const std::string_view line : lines) {
        const std::size_t colon = line.find(':');
        if (colon != std::string_view::npos && beast::iequals(name, {line.data(), colon}))
            values.push_back(trim(line.substr(colon + 1)));
    }
    return values;
}

// The status that refuses a head for what it says about the request's end; 0 for none.
int check_framing(std::string_view head, bool http_1_0) {
    const std::vector<std::string_view> lines = split_lines(head);
    for (const std::string_view line : lines)
        if (line[0] == ' ' || line[0] == '\t' || std::any_of(line.begin(), line.end(), is_control))
            return 400;
    const std::size_t hosts = values_of("Host", lines).size();
    const auto lengths = values_of("Content-Length", lines);
    const auto encodings = values_of("Transfer-Encoding", lines);
    if (hosts > 1 || (hosts == 0 && !http_1_0) || lengths.size() + encodings.size() > 1)
        return 400;
    if (!encodings.empty() && (encodings[0] != "chunked" || http_1_0))
        return 400;
    if (!lengths.empty() && !is_number(lengths[0]))
        return 400;
    return !lengths.empty() && exceeds(lengths[0], MAX_BODY) ? 413 : 0;
}

// Whether `text` begins a chunk whose length is too large even to be read as a number. A chunk that is not
// the first begins with the line end of the one before.
bool begins_huge_chunk(std::string_view text, bool first) {
    if (!first && text.substr(0, LINE_END.size()) != LINE_END)
        return false;
    text.remove_prefix(first ? 0 : LINE_END.size());
    text.remove_prefix(std::min(text.find_first_not_of('0'), text.size()));
    return std::min(text.find_first_not_of("0123456789abcdefABCDEF"), text.size()) > 16;
}

std::string to_string(beast::string_view text) {
    return {text.data(), text.size()};
}

} // namespace

struct RequestReader::Parser : http::request_parser<http::string_body> {};

RequestReader::RequestReader() {
    next();
}

RequestReader::~RequestReader() = default;

void RequestReader::next() {
    parser_ = std::make_unique<Parser>();
    parser_->header_limit(2 * MAX_HEAD);
    parser_->body_limit(MAX_BODY);
    searched_ = 0;
    request_ = ServiceRequest();
    refusal_ = 0;
}

bool RequestReader::refuse(int status) {
    refusal_ = status;
    return true;
}

bool RequestReader::read_head() {
    for (std::size_t end = input_.find('\n', searched_); end != std::string::npos;
         end = input_.find('\n', end + 1)) {
        if (end < 2 || input_[end - 1] != '\r')
            return refuse(400);
        if (input_[end - 2] == '\n' && end < MAX_HEAD)
            return parse_head(std::string_view(input_).substr(0, end + 1));
    }
    searched_ = input_.size();
    if (input_.size() <= MAX_HEAD)
        return false;
    const std::size_t line_end = input_.find(LINE_END);
    if (line_end == std::string::npos)
        return refuse(414);
    parse_head(input_.substr(0, line_end) + "\r\n\r\n"); // for the log
    return refuse(431);
}

bool RequestReader::parse_head(std::string_view head) {
    beast::error_code error;
    parser_->put(boost::asio::const_buffer(head.data(), head.size()), error);
    const auto& message = parser_->get();
    request_.method = to_string(message.method_string());
    request_.target = to_string(message.target());
    request_.accept = to_string(message[http::field::accept]);
    request_.contentType = to_string(message[http::field::content_type]);
    if (const int status = check_framing(head, is_http_1_0()))
        return refuse(status);
    if (error || message.method() == http::verb::unknown)
        return refuse(400);
    input_.erase(0, head.size());
    if (has_body() && message.find(http::field::content_encoding) != message.end())
        return refuse(415);
    parser_->eager(true);
    return true;
}

bool RequestReader::read_body() {
    beast::error_code error;
    const std::size_t used = parser_->put(boost::asio::const_buffer(input_.data(), input_.size()), error);
    input_.erase(0, used);
    std::string& body = parser_->get().body();
    if (error == http::error::body_limit ||
        (error == http::error::bad_chunk && begins_huge_chunk(input_, body.empty())))
        return refuse(413);
    // What the parser leaves is the beginning of a line between chunks.
    if ((error && error != http::error::need_more) || (!parser_->is_done() && input_.size() > MAX_HEAD))
        return refuse(400);
    if (!parser_->is_done())
        return false;
    request_.body = std::move(body);
    return true;
}

bool RequestReader::has_body() const {
    return parser_->chunked() || parser_->content_length().value_or(0) > 0;
}

bool RequestReader::expects_continue() const {
    return !is_http_1_0() && input_.empty() &&
           beast::iequals(parser_->get()[http::field::expect], "100-continue");
}

bool RequestReader::is_http_1_0() const {
    return parser_->get().version() < 11;
}

bool RequestReader::can_reuse() const {
    return refusal_ == 0 && !is_http_1_0() && parser_->is_done() && parser_->keep_alive();
}
