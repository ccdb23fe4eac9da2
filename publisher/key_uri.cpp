#include "publisher/key_uri.h"

#include "publisher/user_error.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <sstream>
#include <vector>

namespace {

constexpr const char* PIN_SOURCE = "pin-source=";

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

// Decodes percent escapes; an invalid one stays as it is.
std::string unescape(const std::string& text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        unsigned byte = 0;
        const char* const digits = text.data() + i + 1;
        const bool is_escape = text[i] == '%' && i + 2 < text.size() &&
                               std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2;
        plain += is_escape ? static_cast<char>(byte) : text[i];
        i += is_escape ? 2 : 0;
    }
    return plain;
}

// The path in "/path", "file:/path", "file:///path" and "file://localhost/path". `what` names the URI.
std::string path_of(const std::string& uri, const std::string& what) {
    std::string path = starts_with(uri, "file:") ? uri.substr(std::strlen("file:")) : uri;
    for (const char* authority : {"//localhost/", "///"})
        if (starts_with(path, authority))
            path = path.substr(std::strlen(authority) - 1);
    if (!starts_with(path, "/"))
        throw UserError(what + " is not a file's absolute path");
    return path;
}

// Moves the pin-source out of the query of `uri`.
void extract_pin_source(KeyUri& uri) {
    const std::size_t mark = uri.location.find('?');
    if (mark == std::string::npos)
        return;
    std::string kept;
    for (const std::string& attribute : split(uri.location.substr(mark + 1), '&')) {
        if (!starts_with(attribute, PIN_SOURCE)) {
            kept += (kept.empty() ? "?" : "&") + attribute;
            continue;
        }
        if (!uri.file.empty())
            throw UserError("the key's URI names more than one PIN");
        uri.file =
            path_of(unescape(attribute.substr(std::strlen(PIN_SOURCE))), "the pin-source of the key's URI");
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
    KeyUri uri = {text.substr(0, colon), "", ""};
    std::transform(uri.scheme.begin(), uri.scheme.end(), uri.scheme.begin(), lower);
    uri.location = uri.scheme + text.substr(colon);
    if (uri.scheme == "pkcs11")
        extract_pin_source(uri);
    if (uri.scheme == "file")
        uri.file = path_of(uri.location, uri.location);
    return uri;
}

void check_object_type(const KeyUri& uri, KeyHalf half) {
    if (uri.scheme != "pkcs11")
        return;
    const std::string path = uri.location.substr(0, uri.location.find('?')).substr(uri.scheme.size() + 1);
    for (const std::string& attribute : split(path, ';'))
        if (starts_with(attribute, "type=") && attribute != std::string("type=") + name_of(half))
            throw UserError(uri.location + " does not name a " + name_of(half) + " key");
}

bool contains_pin(const std::string& argument) {
    std::string text = argument;
    for (std::string plain = unescape(text); plain != text; plain = unescape(text))
        text = plain;
    std::string letters;
    for (const char c : text)
        if (is_letter(c) || c == '=')
            letters += lower(c);
    return letters.find("pinvalue=") != std::string::npos;
}
