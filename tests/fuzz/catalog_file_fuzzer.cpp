// Any bytes as a compiled message catalog: a text that is found is one that the file holds, and what is shown
// is that text or the default text, whole or cut at the end of a character.

#include "platform/catalog_file.h"
#include "platform/message_catalog.h"
#include "platform/paths.h"
#include "tests/fuzz/support/files.h"
#include "tests/fuzz/support/property.h"
#include "tests/fuzz/support/utf8.h"

#include <array>

namespace {

constexpr std::size_t BUFFER_SIZE = 40;

struct Message {
    int number;
    const char* id;
};
constexpr std::array<Message, 5> MESSAGES = {{{1, "TqlRpo0001N"},
                                              {7, "TqlRpo0007N"},
                                              {25, "TqlRpo0025N"},
                                              {26, "TqlRpo0026N"},
                                              {9999, "TqlRpo9999N"}}};

std::string shown(const char* id, const char* locale) {
    std::array<char, BUFFER_SIZE> buffer;
    buffer.fill('#');
    mxgetmsg(id, locale, buffer.size(), buffer.data(), nullptr, 0, nullptr, "package %s of %d", "seven", 12);
    std::string text = up_to_nul(std::string(buffer.data(), buffer.size()));
    require(text.size() < buffer.size(), "a shown text is terminated");
    return text;
}

// A text without conversions takes no argument, so it is never shown in place of one that does.
void check_shown(const Message& message, const std::string& text) {
    const std::string line = shown(message.id, "de_DE.UTF-8");
    if (text.find('%') == std::string::npos)
        require(line == "package seven of 12", "a text that lacks the arguments is not shown");
    if (is_utf8(text))
        require(is_utf8(line), "a text is not cut inside a character");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string path = std::string(MESSAGE_DIRECTORY) + "/de/qvrepo.cat";
    const std::string bytes = as_text(data, size);
    put_file(path, bytes);
    for (const Message& message : MESSAGES) {
        const std::optional<std::string> text = catalog_text(path, message.number);
        if (text)
            require((bytes + '\0').find(*text + '\0') != std::string::npos,
                    "a text is one that the file holds");
        check_shown(message, text.value_or(""));
    }
    require(shown("TqlRpo0025N", "C") == "package seven of 12", "the plain locale has no catalog");
    return 0;
}
