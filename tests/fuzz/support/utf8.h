// Whether bytes are text.

#ifndef TESTS_FUZZ_SUPPORT_UTF8_H
#define TESTS_FUZZ_SUPPORT_UTF8_H

#include "model/json_document.h"

#include <string>

// Whether the JSON library takes the bytes as UTF-8.
inline bool is_utf8(const std::string& text) {
    return own_json(json_stringn(text.data(), text.size())) != nullptr;
}

#endif
