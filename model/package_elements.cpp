#include "model/package_elements.h"

#include <cstring>

// The text ends at its first NUL byte, as it does for the parser of whole documents.
PackageElements::PackageElements(const std::string& response)
    : position_(response.c_str()), place_(take("{") ? Place::FIRST_MEMBER : Place::MALFORMED) {}

JsonDocument PackageElements::next() {
    while (place_ == Place::FIRST_MEMBER || place_ == Place::MEMBERS)
        take_member();
    if (place_ != Place::FIRST_ELEMENT && place_ != Place::ELEMENTS)
        return {};
    if (!take("]"))
        return take_element();
    place_ = Place::MEMBERS;
    return next();
}

// Skips white space and consumes `symbol` where it comes next.
bool PackageElements::take(const char* symbol) {
    position_ += std::strspn(position_, " \t\r\n");
    const std::size_t length = std::strlen(symbol);
    if (std::strncmp(position_, symbol, length) != 0)
        return false;
    position_ += length;
    return true;
}

JsonDocument PackageElements::take_value(std::size_t enclosing) {
    json_error_t place;
    JsonDocument value = parse_json(position_, JSON_DECODE_ANY, &place, enclosing);
    if (value)
        position_ += place.position;
    return value;
}

JsonDocument PackageElements::take_element() {
    JsonDocument element;
    if (place_ == Place::FIRST_ELEMENT || take(","))
        element = take_value(2);
    place_ = element ? Place::ELEMENTS : Place::MALFORMED;
    return element;
}

void PackageElements::take_member() {
    if (take("}")) {
        place_ = Place::END;
        return;
    }
    const bool separated = place_ == Place::FIRST_MEMBER || take(",");
    place_ = Place::MALFORMED;
    if (!separated)
        return;
    const JsonDocument name = take_value(1);
    if (json_is_string(name.get()) && take(":"))
        place_ = take_member_value(json_string_value(name.get()));
}

PackageElements::Place PackageElements::take_member_value(const std::string& name) {
    if (name != "data")
        return take_value(1) ? Place::MEMBERS : Place::MALFORMED;
    // Of several members of one name the last counts, and only the end shows which that is.
    if (has_list_ || !take("["))
        return Place::MALFORMED;
    has_list_ = true;
    return Place::FIRST_ELEMENT;
}
