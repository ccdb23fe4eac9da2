#include "platform/format_conversions.h"

#include <cstddef>
#include <cstring>

namespace {

bool is_one_of(char c, const char* set) {
    return c != '\0' && std::strchr(set, c) != nullptr;
}

// A number of nine digits keeps the C library busy for seconds with blanks that the buffer then cuts off.
constexpr std::ptrdiff_t MAX_DIGITS = 4;

// Skips a width or a precision; a '*' adds the argument that it takes. Null for a number that is too long.
const char* skip_number(const char* at, std::vector<std::string>& conversions) {
    if (*at == '*') {
        conversions.emplace_back("d");
        return at + 1;
    }
    const char* const start = at;
    while (is_one_of(*at, "0123456789"))
        ++at;
    return at - start > MAX_DIGITS ? nullptr : at;
}

std::string length_modifier(const char* at) {
    for (const char* modifier : {"hh", "ll", "h", "l", "q", "j", "z", "t", "L"}) {
        if (std::strncmp(at, modifier, std::strlen(modifier)) == 0)
            return modifier;
    }
    return "";
}

// Reads one conversion after its '%' and returns the place after it, or null for one that is not usable. A '$'
// of a positional argument is not a conversion character, so it ends here too.
const char* read_conversion(const char* at, std::vector<std::string>& conversions) {
    while (is_one_of(*at, "-+ #0'I"))
        ++at;
    at = skip_number(at, conversions);
    if (at != nullptr && *at == '.')
        at = skip_number(at + 1, conversions);
    if (at == nullptr)
        return nullptr;
    const std::string length = length_modifier(at);
    at += length.size();
    if (!is_one_of(*at, "diouxXeEfFgGaAcsp"))
        return nullptr;
    conversions.push_back(length + *at);
    return at + 1;
}

} // namespace

std::optional<std::vector<std::string>> format_conversions(const char* format) {
    std::vector<std::string> conversions;
    const char* at = format;
    while ((at = std::strchr(at, '%')) != nullptr) {
        ++at;
        at = *at == '%' ? at + 1 : read_conversion(at, conversions);
        if (at == nullptr)
            return std::nullopt;
    }
    return conversions;
}

bool same_conversions(const char* original, const char* translation) {
    const auto expected = format_conversions(original);
    return expected.has_value() && expected == format_conversions(translation);
}
