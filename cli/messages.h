// The texts that catalogs translate, in one table.

#ifndef CLI_MESSAGES_H
#define CLI_MESSAGES_H

#include <array>

struct Message {
    const char* id;   // in the catalog
    const char* text; // in English, a printf format
};

// Every message, in the order of the identifiers.
extern const std::array<Message, 38> MESSAGES;

// The text of message `id` in MESSAGES.
const char* english_text(const char* id);

// Renders message `id`, which takes no argument, in the user's language. Returns `outline`, which holds it.
const char* user_text(const char* id);

// Renders message `id`, which may take one string, in the user's language and, into `msg_E`, in English.
// Returns `outline`, which holds the first.
const char* user_and_english_text(const char* id, const char* argument = "");

#endif
