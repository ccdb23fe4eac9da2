#include "platform/bounded.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

bool is_blank(char c) {
    return c != '\0' && std::strchr(" \t\n\v\f\r", c) != nullptr;
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// Reads one number as scanf's %u does and moves `text` past it. False, without moving, when there is
// none.
bool scan_unsigned(const char*& text, unsigned& number) {
    const char* at = text;
    while (is_blank(*at))
        ++at;
    const bool negative = *at == '-';
    if (*at == '-' || *at == '+')
        ++at;
    if (!is_digit(*at))
        return false;
    std::uint32_t value = 0;
    for (; is_digit(*at); ++at)
        value = value * 10U + static_cast<std::uint32_t>(*at - '0');
    number = negative ? 0U - value : value;
    text = at;
    return true;
}

} // namespace

void bounded_copy(char* destination, std::size_t size, const char* source) {
    if (size == 0)
        return;
    const std::size_t length = source == nullptr ? 0 : strnlen(source, size - 1);
    if (length > 0)
        std::memcpy(destination, source, length);
    destination[length] = '\0';
}

void bounded_format(char* destination, std::size_t size, const char* format, ...) {
    if (size == 0)
        return;
    std::va_list arguments;
    va_start(arguments, format);
    if (std::vsnprintf(destination, size, format, arguments) < 0)
        destination[0] = '\0';
    va_end(arguments);
}

int bounded_scan_version(const char* text, unsigned* numbers, int count) {
    for (int i = 0; i < count; ++i)
        numbers[i] = 0;
    if (text == nullptr)
        return 0;
    int read = 0;
    while (read < count && scan_unsigned(text, numbers[read])) {
        ++read;
        // Only a dot that follows at once goes on; white space before it does not match.
        if (*text != '.')
            break;
        ++text;
    }
    return read;
}
