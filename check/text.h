// Texts for people and names for machines: messages in the user's language, foreign bytes made visible, words
// quoted for a shell.

#ifndef CHECK_TEXT_H
#define CHECK_TEXT_H

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

// A message of the program: its identifier in the catalogs, and the English text, a format that takes "%s"
// alone.
struct Message {
    const char* id;
    const char* text;
};

// A message with its arguments. Of no message, an empty text.
struct Text {
    const Message* message = nullptr;
    std::vector<std::string> arguments = {};
};

enum class Language { USER, ENGLISH };

// The text with its arguments, which are escaped as below, controls too.
std::string render(const Text& text, Language language);

// Thrown where nothing can be told of the server's state; ends the program with status 3.
struct CannotCheck : std::runtime_error {
    explicit CannotCheck(Text why)
        : std::runtime_error(render(why, Language::ENGLISH)),
          reason(std::make_shared<const Text>(std::move(why))) {}
    std::shared_ptr<const Text> reason; // shared: copying an exception must not throw
};

// The bytes as UTF-8 without loss: a backslash is doubled, a byte that belongs to no character stands as
// \xNN. With `controls`, control characters stand in the same way, as \n, \t or \xNN, so that the text keeps
// to its line and does nothing to a terminal.
std::string escaped(const std::string& bytes, bool controls);

// The bytes as one word of a command line that a person copies into a shell.
std::string shell_word(const std::string& bytes);

#endif
