#include "master/json_text.h"

#include <boost/locale/utf.hpp>

namespace {

// Goes past the character at `at`; false where there are only bytes that are not UTF-8.
bool skip_character(const char*& at, const char* end) {
    namespace utf = boost::locale::utf;
    const utf::code_point character = utf::utf_traits<char>::decode(at, end);
    return character != utf::illegal && character != utf::incomplete;
}

} // namespace

void append_json_string(std::string& out, std::string_view text) {
    const char* const digits = "0123456789abcdef";
    const char* const end = text.data() + text.size();
    out += '"';
    for (const char *at = text.data(), *next = at; at != end; at = next) {
        const bool valid = skip_character(next, end);
        const auto byte = static_cast<unsigned char>(*at);
        if (!valid || byte < 0x20 || byte == 0x7f) {
            out += {'\\', 'u', '0', '0', digits[byte >> 4], digits[byte & 0xf]};
            next = at + 1;
        } else {
            out += byte == '"' || byte == '\\' ? "\\" : "";
            out.append(at, next);
        }
    }
    out += '"';
}
