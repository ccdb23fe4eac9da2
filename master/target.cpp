#include "master/target.h"

#include <cctype>
#include <charconv>

namespace {

// The value of a hexadecimal digit, or -1.
int hex_value(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

Target read_target(const std::string& raw) {
    const std::size_t mark = raw.find('?');
    Target target;
    target.path = percent_decode(raw.substr(0, mark));
    if (mark != std::string::npos)
        target.query = raw.substr(mark + 1);
    return target;
}

std::string percent_decode(const std::string& text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool room = text[i] == '%' && text.size() - i > 2;
        const int high = room ? hex_value(text[i + 1]) : -1;
        const int low = room ? hex_value(text[i + 2]) : -1;
        if (high < 0 || low < 0) {
            decoded += text[i];
            continue;
        }
        decoded += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return decoded;
}

std::optional<std::int64_t> read_package_id(const std::string& text) {
    // from_chars would take a minus sign.
    if (text.empty() || std::isdigit(static_cast<unsigned char>(text[0])) == 0)
        return std::nullopt;
    std::int64_t id = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, id);
    if (error != std::errc() || stop != end || id == 0)
        return std::nullopt;
    return id;
}
