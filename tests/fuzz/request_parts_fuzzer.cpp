// Any bytes as the parts of a request to the web service: what was encoded is decoded to what it was, what is
// read can be written again, and any text becomes valid JSON.

#include "master/json_text.h"
#include "master/request_parts.h"
#include "model/json_document.h"
#include "tests/fuzz/support/property.h"
#include "tests/fuzz/support/utf8.h"

#include <algorithm>

namespace {

std::string percent_encode(const std::string& text) {
    const char* const digits = "0123456789ABCDEF";
    std::string encoded;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        encoded += {'%', digits[byte >> 4U], digits[byte & 0xFU]};
    }
    return encoded;
}

void check_target(const std::string& raw) {
    require(percent_decode(percent_encode(raw)) == raw, "decoding undoes encoding");
    require(percent_decode(raw).size() <= raw.size(), "decoding never lengthens");
    if (raw.find('%') == std::string::npos)
        require(percent_decode(raw) == raw, "a text without codes stands as it is");
    const std::string path = raw.substr(0, raw.find('?'));
    const Target target = read_target(raw);
    require(target.path == percent_decode(path), "the path goes up to the first question mark");
    require(path + (target.query ? "?" + *target.query : "") == raw,
            "the query is everything after it, as received");
}

void check_filter(const std::string& raw) {
    const Filter filter = read_filter_query("filter=" + percent_encode("os eq '" + raw + "'"));
    require(filter.column == "os" && filter.value == raw, "a filter's value is any bytes");
    try {
        const Filter read = read_filter_query(raw);
        const std::string decoded = percent_decode(raw);
        const std::size_t quote = decoded.find('\'');
        require(read.value == decoded.substr(quote + 1, decoded.size() - quote - 2),
                "a value runs from the first quote to the last byte, a quote");
    } catch (const BadRequest&) {
        require(raw.compare(0, 16, "filter=os%20eq%20") != 0 || raw.size() < 18 || raw.back() != '\'',
                "a filter of the right form is read");
    }
}

void check_media_type(const std::string& raw) {
    const auto type = accepted_media_type(raw);
    if (!type)
        return;
    require(*type == "application/vnd.quorvelle+json;version=4.0" ||
                *type == "application/vnd.quorvelle+json;version=5.0" || type == LATEST_MEDIA_TYPE,
            "the service answers in one of its types");
    require(accepted_media_type(*type) == type, "the type of an answer is one that can be asked for");
}

void check_package_id(const std::string& raw) {
    const bool digits = !raw.empty() && raw.find_first_not_of("0123456789") == std::string::npos;
    const std::string number = raw.substr(std::min(raw.find_first_not_of('0'), raw.size()));
    const std::string largest = "9223372036854775807";
    const bool in_range =
        number.size() < largest.size() || (number.size() == largest.size() && number <= largest);
    const auto id = read_package_id(raw);
    require(id.has_value() == (digits && !number.empty() && in_range),
            "an ID is a positive number in digits");
    if (id)
        require(std::to_string(*id) == number, "an ID is the number that is written");
}

void check_json_text(const std::string& raw) {
    std::string json;
    append_json_string(json, raw);
    const JsonDocument text =
        own_json(json_loadb(json.data(), json.size(), JSON_DECODE_ANY | JSON_ALLOW_NUL, nullptr));
    require(json_is_string(text.get()), "any text becomes a JSON string");
    const std::string read(json_string_value(text.get()), json_string_length(text.get()));
    require((read == raw) == is_utf8(raw), "UTF-8, and only that, is read as it was");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string raw = as_text(data, size);
    check_target(raw);
    check_filter(raw);
    check_media_type(raw);
    check_package_id(raw);
    check_json_text(raw);
    return 0;
}
