#include "master/json_text.h"

#include <cstddef>

namespace {

void append_escape(std::string& out, unsigned char byte) {
    const char* const digits = "0123456789abcdef";
    out += "\\u00";
    out += digits[byte >> 4];
    out += digits[byte & 0xf];
}

bool continues(std::string_view text, std::size_t at, unsigned char low, unsigned char high) {
    return at < text.size() && static_cast<unsigned char>(text[at]) >= low &&
           static_cast<unsigned char>(text[at]) <= high;
}

// The length of the UTF-8 character that begins at `at` with a byte above 0x7F; 0 where none does. The second
// byte's range shuts out overlong forms, surrogates and numbers above U+10FFFF.
std::size_t character_length(std::string_view text, std::size_t at) {
    const auto first = static_cast<unsigned char>(text[at]);
    std::size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xbf;
    if (first >= 0xc2 && first <= 0xdf) {
        length = 2;
    } else if (first >= 0xe0 && first <= 0xef) {
        length = 3;
        low = first == 0xe0 ? 0xa0 : low;
        high = first == 0xed ? 0x9f : high;
    } else if (first >= 0xf0 && first <= 0xf4) {
        length = 4;
        low = first == 0xf0 ? 0x90 : low;
        high = first == 0xf4 ? 0x8f : high;
    } else {
        return 0;
    }
    if (!continues(text, at + 1, low, high))
        return 0;
    for (std::size_t i = 2; i < length; ++i)
        if (!continues(text, at + i, 0x80, 0xbf))
            return 0;
    return length;
}

} // namespace

void append_json_string(std::string& out, std::string_view text) {
    out += '"';
    for (std::size_t i = 0; i < text.size();) {
        const auto byte = static_cast<unsigned char>(text[i]);
        std::size_t length = 1;
        if (byte == '"' || byte == '\\') {
            out += '\\';
            out += text[i];
        } else if (byte < 0x20 || byte == 0x7f) {
            append_escape(out, byte);
        } else if (byte < 0x80) {
            out += text[i];
        } else if ((length = character_length(text, i)) > 0) {
            out += text.substr(i, length);
        } else {
            length = 1;
            append_escape(out, byte);
        }
        i += length;
    }
    out += '"';
}
