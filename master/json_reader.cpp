#include "master/json_reader.h"

#include "master/bad_request.h"

#include <jansson.h>

#include <algorithm>
#include <memory>

namespace {

// As deep as jansson goes.
constexpr int MAX_DEPTH = 2048;

struct JsonRelease {
    void operator()(json_t* value) const { json_decref(value); }
};

[[noreturn]] void refuse(const std::string& reason) {
    throw BadRequest("the body is not JSON: " + reason);
}

} // namespace

// The next byte after white space; NUL at the end of the text, where no JSON goes on.
char JsonReader::peek() {
    position_ = std::min(text_.find_first_not_of(" \t\r\n", position_), text_.size());
    return position_ < text_.size() ? text_[position_] : '\0';
}

void JsonReader::expect(char byte) {
    if (peek() != byte)
        refuse(std::string("'") + byte + "' expected at byte " + std::to_string(position_));
    ++position_;
}

// Lets jansson read a string, number or literal, and `read` take what it holds.
template <typename Read>
auto JsonReader::scalar(Read read) {
    json_error_t error;
    const std::unique_ptr<json_t, JsonRelease> value(
        json_loadb(text_.data() + position_, text_.size() - position_,
                   JSON_DECODE_ANY | JSON_DISABLE_EOF_CHECK, &error));
    if (!value)
        refuse(error.text);
    position_ += static_cast<std::size_t>(error.position);
    return read(value.get());
}

template <typename Item>
bool JsonReader::items(char open, char close, Item item) {
    if (peek() != open) {
        skip();
        return false;
    }
    if (++depth_ > MAX_DEPTH)
        refuse("nested too deeply");
    ++position_;
    if (peek() != close)
        for (item(); peek() == ','; item())
            ++position_;
    expect(close);
    --depth_;
    return true;
}

bool JsonReader::object(const std::function<void(const std::string& name)>& member) {
    return items('{', '}', [&] {
        const std::optional<std::string> name = string();
        if (!name)
            refuse("a member's name must be a string");
        expect(':');
        member(*name);
    });
}

bool JsonReader::array(const std::function<void()>& element) {
    return items('[', ']', element);
}

std::optional<std::string> JsonReader::string() {
    if (peek() != '"') {
        skip();
        return std::nullopt;
    }
    return scalar(
        [](const json_t* value) { return std::string(json_string_value(value), json_string_length(value)); });
}

std::optional<std::int64_t> JsonReader::integer() {
    const char first = peek();
    if (first == '{' || first == '[') {
        skip();
        return std::nullopt;
    }
    return scalar([](const json_t* value) {
        return json_is_integer(value) ? std::optional<std::int64_t>(json_integer_value(value)) : std::nullopt;
    });
}

void JsonReader::skip() {
    switch (peek()) {
    case '{':
        object([this](const std::string&) { skip(); });
        break;
    case '[':
        array([this] { skip(); });
        break;
    default:
        scalar([](const json_t*) {});
    }
}

void JsonReader::finish() {
    if (peek() != '\0' || position_ < text_.size())
        refuse("end of the text expected at byte " + std::to_string(position_));
}
