// The target of a request, as it stands in the request line.

#ifndef MASTER_TARGET_H
#define MASTER_TARGET_H

#include <cstdint>
#include <optional>
#include <string>

struct Target {
    std::string path; // percent-decoded
    std::optional<std::string>
        query; // as received, without the question mark; none where there is no question mark
};

// Splits the raw target at its first question mark.
Target read_target(const std::string& raw);

// Replaces every percent code (% and two hexadecimal digits) by its byte, once. Whatever is no percent code
// stays as it is, and so does "+".
std::string percent_decode(const std::string& text);

// The package ID that `text` writes in decimal digits alone; none where it holds anything else, is 0, or does
// not fit a signed 64-bit number.
std::optional<std::int64_t> read_package_id(const std::string& text);

#endif
