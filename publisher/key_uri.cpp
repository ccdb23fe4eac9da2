#include "publisher/key_uri.h"

#include "publisher/refusal.h"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <vector>

namespace {

constexpr const char* PIN_VALUE = "pin-value=";
constexpr const char* PIN_SOURCE = "pin-source=";
constexpr const char* HEX_DIGITS = "0123456789abcdef";

bool is_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool is_in_scheme(char c) {
    return is_letter(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
}

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool starts_with(const std::string& text, const char* start) {
    return text.compare(0, std::strlen(start), start) == 0;
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::istringstream rest(text);
    for (std::string part; std::getline(rest, part, separator);)
        parts.push_back(part);
    return parts;
}

// The value of a hexadecimal digit, or -1.
int digit(const std::string& text, std::size_t place) {
    const char* found =
        place < text.size() && text[place] != '\0' ? std::strchr(HEX_DIGITS, lower(text[place])) : nullptr;
    return found == nullptr ? -1 : static_cast<int>(found - HEX_DIGITS);
}

std::string unescape(const std::string& text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            plain += text[i];
            continue;
        }
        const int high = digit(text, i + 1);
        const int low = digit(text, i + 2);
        // The text itself stays out of the message: it may be a PIN.
        if (high < 0 || low < 0)
            throw Refusal("the PIN in the key's URI has a % without two hexadecimal digits");
        plain += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return plain;
}

std::string file_of(const std::string& source) {
    std::string path = source;
    if (starts_with(path, "file:"))
        path = path.substr(std::strlen("file:"));
    if (starts_with(path, "///"))
        path = path.substr(2);
    if (path.empty() || path[0] != '/')
        throw Refusal("the pin-source of the key's URI is no file's path from / on");
    return path;
}

std::shared_ptr<const Passphrase> pin_of(const std::string& attribute) {
    if (starts_with(attribute, PIN_SOURCE)) {
        const std::string path = file_of(unescape(attribute.substr(std::strlen(PIN_SOURCE))));
        return std::shared_ptr<const Passphrase>(new Passphrase(passphrase_from_file(path)));
    }
    std::string value = unescape(attribute.substr(std::strlen(PIN_VALUE)));
    if (value.empty())
        throw Refusal("the PIN in the key's URI is empty");
    return std::make_shared<const Passphrase>(value);
}

// Moves the PIN out of the query of `uri`.
void take_pin(KeyUri& uri) {
    const std::size_t mark = uri.location.find('?');
    if (mark == std::string::npos)
        return;
    std::string kept;
    for (const std::string& attribute : split(uri.location.substr(mark + 1), '&')) {
        if (!starts_with(attribute, PIN_VALUE) && !starts_with(attribute, PIN_SOURCE)) {
            kept += (kept.empty() ? "?" : "&") + attribute;
            continue;
        }
        if (uri.pin)
            throw Refusal("the key's URI names more than one PIN");
        uri.pin = pin_of(attribute);
    }
    uri.location = uri.location.substr(0, mark) + kept;
}

} // namespace

const char* name_of(KeyHalf half) {
    return half == KeyHalf::PRIVATE ? "private" : "public";
}

bool is_key_uri(const std::string& name) {
    const std::size_t colon = name.find(':');
    return colon != std::string::npos && colon > 0 && is_letter(name[0]) &&
           std::all_of(name.begin(), name.begin() + static_cast<std::ptrdiff_t>(colon), is_in_scheme);
}

KeyUri parse_key_uri(const std::string& text) {
    const std::size_t colon = text.find(':');
    KeyUri uri = {text.substr(0, colon), "", nullptr};
    std::transform(uri.scheme.begin(), uri.scheme.end(), uri.scheme.begin(), lower);
    uri.location = uri.scheme + text.substr(colon);
    if (uri.scheme == "pkcs11")
        take_pin(uri);
    return uri;
}

void check_object_type(const KeyUri& uri, KeyHalf half) {
    if (uri.scheme != "pkcs11")
        return;
    const std::string path = uri.location.substr(0, uri.location.find('?')).substr(uri.scheme.size() + 1);
    for (const std::string& attribute : split(path, ';'))
        if (starts_with(attribute, "type=") && attribute != std::string("type=") + name_of(half))
            throw Refusal(uri.location + " names no " + name_of(half) + " key");
}
