// Text as JSON.

#ifndef MASTER_JSON_TEXT_H
#define MASTER_JSON_TEXT_H

#include <string>
#include <string_view>

// Appends `text` as a JSON string, quotes included. UTF-8 is kept; a byte that is not part of a UTF-8
// character is written as \u00XX, so that the result is valid JSON for any bytes.
void append_json_string(std::string& out, std::string_view text);

#endif
