#include "master/media_type.h"

#include <algorithm>
#include <cctype>

namespace {

const char* const MEDIA_TYPE = "application/vnd.quorvelle+json";
const char* const VERSION_NAME = "version=";
const char* const LATEST_VERSION = "6.0";

std::string trimmed(const std::string& text) {
    const char* const blanks = " \t";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos)
        return "";
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string lower_case(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string media_type(const std::string& version) {
    return std::string(MEDIA_TYPE) + ";" + VERSION_NAME + version;
}

} // namespace

std::optional<std::string> accepted_media_type(const std::string& accept) {
    const std::size_t semicolon = accept.find(';');
    if (semicolon == std::string::npos || lower_case(trimmed(accept.substr(0, semicolon))) != MEDIA_TYPE)
        return std::nullopt;
    const std::string parameter = lower_case(trimmed(accept.substr(semicolon + 1)));
    for (const char* version : {"4.0", "5.0", LATEST_VERSION})
        if (parameter == std::string(VERSION_NAME) + version)
            return media_type(version);
    return std::nullopt;
}

std::string latest_media_type() {
    return media_type(LATEST_VERSION);
}
