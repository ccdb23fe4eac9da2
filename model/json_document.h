// A parsed or packed JSON document and its owner. Values taken out of it are borrowed.

#ifndef MODEL_JSON_DOCUMENT_H
#define MODEL_JSON_DOCUMENT_H

#include <boost/shared_ptr.hpp>
#include <jansson.h>

#include <cstddef>

using JsonDocument = boost::shared_ptr<json_t>;

// Adopts the caller's reference; the last owner drops it. Null is allowed.
inline JsonDocument own_json(json_t* value) {
    return {value, json_decref};
}

// The largest value that is parsed. A parsed document takes up to eighty times the memory of its text ("{},"
// over and over), so the longest answer that is received would take forty gigabytes.
inline constexpr std::size_t MAX_JSON_SIZE = std::size_t{64} * 1024 * 1024; // bytes
inline constexpr std::size_t MAX_JSON_VALUES = 1000000;

// Parses the object or array that the terminated text begins with; what follows it does not count.
// `flags` are added to that; JSON_DECODE_ANY takes values of every type. `enclosing` is the number of objects
// and arrays around the value, which count towards the nesting.
//
// Null, with `error` filled in unless it is null, for a text that is not JSON, and for a value of more than
// MAX_JSON_SIZE bytes or MAX_JSON_VALUES values. On success the error's position is the number of bytes
// that were taken.
JsonDocument parse_json(const char* text, std::size_t flags = 0, json_error_t* error = nullptr,
                        std::size_t enclosing = 0);

#endif
