#include "model/package_elements.h"

#include <cstring>

// The text ends at its first NUL byte, as it does for the parser of whole documents.
PackageElements::PackageElements(const std::string& response)
    : position_(response.c_str()), end_(position_ + std::strlen(position_)),
      of_form_(take("{") && take("\"data\"") && take(":") && take("[")) {}

json_document PackageElements::next() {
    if (!of_form_)
        return {};
    if (take("]"))
        return finish();
    if (!first_ && !take(",")) {
        of_form_ = false;
        return {};
    }
    first_ = false;
    json_document object = take_object();
    of_form_ = object != nullptr;
    return object;
}

// Skips white space and takes `symbol` where it stands next.
bool PackageElements::take(const char* symbol) {
    position_ += std::strspn(position_, " \t\r\n");
    const std::size_t length = std::strlen(symbol);
    if (std::strncmp(position_, symbol, length) != 0)
        return false;
    position_ += length;
    return true;
}

json_document PackageElements::take_object() {
    json_error_t place;
    const auto left = static_cast<std::size_t>(end_ - position_);
    json_document object = own_json(json_loadb(position_, left, JSON_DISABLE_EOF_CHECK, &place));
    if (!json_is_object(object.get()))
        return {};
    position_ += place.position;
    return object;
}

json_document PackageElements::finish() {
    complete_ = take("}");
    of_form_ = false;
    return {};
}
