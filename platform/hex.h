// Bytes as hexadecimal digits.

#ifndef PLATFORM_HEX_H
#define PLATFORM_HEX_H

#include <array>

inline constexpr const char* LOWER_HEX_DIGITS = "0123456789abcdef";
inline constexpr const char* UPPER_HEX_DIGITS = "0123456789ABCDEF";

// The two digits of `byte`, taken from `digits`.
inline std::array<char, 2> hex_digits_of(unsigned char byte, const char* digits) {
    return {digits[byte >> 4U], digits[byte & 0xfU]};
}

#endif
