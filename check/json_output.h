// JSON documents, written piece by piece.

#ifndef CHECK_JSON_OUTPUT_H
#define CHECK_JSON_OUTPUT_H

#include "check/text.h"

#include <iosfwd>
#include <string>

#include <jansson.h>

// A string value: the bytes escaped, control characters left to JSON.
inline json_t* json_text(const std::string& bytes) {
    const std::string text = escaped(bytes, false);
    return json_stringn(text.data(), text.size());
}

// The text in English; its arguments are escaped, controls too.
inline json_t* json_message(const Text& text) {
    return json_string(render(text, Language::ENGLISH).c_str());
}

// Writes `value` on one line and drops it.
void write_json(std::ostream& out, json_t* value);

// Writes what every document begins with, program, version and time, and leaves the object open.
void begin_document(std::ostream& out);

#endif
