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
    const char* unwritten = text.data();
    out += '"';
    for (const char *at = text.data(), *next = at; at != end; at = next) {
        const auto byte = static_cast<unsigned char>(*at);
        if (skip_character(next, end) && byte >= 0x20 && byte != 0x7f && byte != '"' && byte != '\\')
            continue;
        out.append(unwritten, at);
        unwritten = next = at + 1;
        if (byte == '"' || byte == '\\')
            out += {'\\', *at};
        else
            out += {'\\', 'u', '0', '0', digits[byte >> 4], digits[byte & 0xf]};
    }
    out.append(unwritten, end);
    out += '"';
}
