#include "master/request_parts.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <charconv>
#include <utility>

Target read_target(const std::string& raw) {
    const std::size_t mark = raw.find('?');
    Target target{percent_decode(raw.substr(0, mark)), std::nullopt};
    if (mark != std::string::npos)
        target.query = raw.substr(mark + 1);
    return target;
}

std::string percent_decode(const std::string& text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        unsigned char byte = 0;
        const char* const digits = &text[i] + 1;
        if (text[i] == '%' && text.size() - i > 2 &&
            std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2) {
            decoded += static_cast<char>(byte);
            i += 2;
        } else {
            decoded += text[i];
        }
    }
    return decoded;
}

std::optional<std::int64_t> read_package_id(const std::string& text) {
    std::int64_t id = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, id);
    if (error != std::errc() || stop != end || id <= 0)
        return std::nullopt;
    return id;
}

Filter read_filter_query(const std::string& query) {
    const std::string option = "filter=";
    if (!boost::starts_with(query, option))
        throw BadRequest("the only option of a package list is filter");
    const std::string text = percent_decode(query.substr(option.size()));
    for (const auto& [field, column] :
         {std::pair("version", "version"), std::pair("os", "os"), std::pair("package-type", "packageType")}) {
        const std::string beginning = std::string(field) + " eq '";
        if (boost::starts_with(text, beginning) && text.size() > beginning.size() && text.back() == '\'')
            return {column, text.substr(beginning.size(), text.size() - beginning.size() - 1)};
    }
    throw BadRequest("a filter reads FIELD eq 'VALUE' with FIELD version, os or package-type");
}

std::optional<std::string> accepted_media_type(const std::string& accept) {
    const std::size_t semicolon = accept.find(';');
    if (semicolon == std::string::npos)
        return std::nullopt;
    const auto trimmed = [](const std::string& text) {
        return boost::trim_copy_if(text, [](char c) { return c == ' ' || c == '\t'; });
    };
    const std::string asked = boost::to_lower_copy(trimmed(accept.substr(0, semicolon)) + ";" +
                                                   trimmed(accept.substr(semicolon + 1)));
    for (const char* version : {"4.0", "5.0", "6.0"})
        if (asked == std::string("application/vnd.quorvelle+json;version=") + version)
            return asked;
    return std::nullopt;
}
