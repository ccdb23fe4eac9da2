#include "model/json_document.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

// As deep as jansson goes into one text.
constexpr std::size_t MAX_NESTING = 2048;

struct JsonExtent {
    std::size_t length = 0; // bytes
    std::size_t values = 1;
    std::size_t depth = 0;
};

// The place after the string that begins at `quote`, or the end of the text.
const char* after_string(const char* quote) {
    const char* place = quote + 1;
    while (*(place += std::strcspn(place, "\"\\")) == '\\' && place[1] != '\0')
        place += 2;
    return *place == '\0' ? place : place + 1;
}

bool is_closed_at_once(const char* bracket) {
    const char next = bracket[1 + std::strspn(bracket + 1, " \t\r\n")];
    return next == ']' || next == '}';
}

// Measures the value at the start of the text. In what is not JSON it measures at least as much as a parser
// reads before it notices.
JsonExtent measure(const char* text) {
    JsonExtent extent;
    std::size_t depth = 0;
    const char* place = text;
    do {
        place += std::strcspn(place, "\"[]{},");
        switch (*place) {
        case '"':
            place = after_string(place);
            continue;
        case '[':
        case '{':
            extent.values += is_closed_at_once(place) ? 0 : 1;
            extent.depth = std::max(extent.depth, ++depth);
            break;
        case ']':
        case '}':
            depth -= depth > 0 ? 1 : 0;
            break;
        case ',':
            ++extent.values;
            break;
        default:
            break;
        }
        place += *place != '\0' ? 1 : 0;
    } while (depth > 0 && *place != '\0');
    extent.length = static_cast<std::size_t>(place - text);
    return extent;
}

bool is_within_limits(const JsonExtent& extent, std::size_t enclosing) {
    // jansson itself refuses a value that nothing encloses, with a better explanation.
    const bool too_deep = enclosing > 0 && extent.depth + enclosing > MAX_NESTING;
    return extent.length <= MAX_JSON_SIZE && extent.values <= MAX_JSON_VALUES && !too_deep;
}

void refuse(json_error_t* error) {
    if (error == nullptr)
        return;
    *error = {};
    static_cast<void>(std::snprintf(error->text, sizeof error->text, "the document is too large"));
}

} // namespace

JsonDocument parse_json(const char* text, std::size_t flags, json_error_t* error, std::size_t enclosing) {
    const JsonExtent extent = measure(text);
    if (!is_within_limits(extent, enclosing)) {
        refuse(error);
        return {};
    }
    return own_json(json_loadb(text, extent.length, flags | JSON_DISABLE_EOF_CHECK, error));
}
