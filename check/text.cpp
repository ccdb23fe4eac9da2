#include "check/text.h"

#include "platform/message_catalog.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include <jansson.h>

namespace {

constexpr std::size_t MAX_TEXT = 64UL * 1024;

const std::string& format_of(const Message& message) {
    static const std::string locale = [] {
        char name[256];
        mxgetlocaleEx(name, sizeof name, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr);
        return std::string(name);
    }();
    static std::map<const Message*, std::string> formats;
    std::string& format = formats[&message];
    if (format.empty())
        format = catalog_format("qvcheck", 2, message.id, locale.c_str(), message.text);
    return format;
}

// The length of the character at `place`; 0 where there is none that may be shown.
std::size_t character_length(const std::string& bytes, std::size_t place) {
    const auto first = static_cast<unsigned char>(bytes[place]);
    if (first < 0x80)
        return 1;
    const std::size_t length = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    // U+0080 to U+009F are control characters.
    if (length > bytes.size() - place ||
        (first == 0xC2 && static_cast<unsigned char>(bytes[place + 1]) < 0xA0))
        return 0;
    json_t* character = json_stringn(bytes.data() + place, length);
    json_decref(character);
    return character != nullptr ? length : 0;
}

bool is_control(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

void append_number(std::string& text, const char* format, char byte) {
    char number[8];
    static_cast<void>(std::snprintf(number, sizeof number, format, static_cast<unsigned char>(byte)));
    text += number;
}

// Appends the byte at `place` or the character that begins there; how many bytes that were.
std::size_t append_escaped(std::string& text, const std::string& bytes, std::size_t place, bool controls) {
    const char byte = bytes[place];
    const std::size_t length = character_length(bytes, place);
    if (byte == '\\')
        text += "\\\\";
    else if (controls && byte == '\n')
        text += "\\n";
    else if (controls && byte == '\t')
        text += "\\t";
    else if (length == 0 || (controls && is_control(byte)))
        append_number(text, "\\x%02x", byte);
    else
        text.append(bytes, place, length);
    return length == 0 ? 1 : length;
}

bool is_plain(const std::string& word) {
    return !word.empty() && word.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                                   "0123456789_./:=@%+,-") == std::string::npos;
}

// $'...', which shells with history take alike: bash, ksh, zsh.
std::string dollar_quoted(const std::string& bytes) {
    std::string word = "$'";
    for (const char byte : bytes) {
        if (byte == '\\' || byte == '\'')
            (word += '\\') += byte;
        else if (is_control(byte) || static_cast<unsigned char>(byte) >= 0x80)
            append_number(word, "\\%03o", byte);
        else
            word += byte;
    }
    return word + "'";
}

} // namespace

std::string render(const Text& text, Language language) {
    if (text.message == nullptr)
        return {};
    std::vector<std::string> arguments = text.arguments;
    for (std::string& argument : arguments)
        argument = escaped(argument, true);
    arguments.resize(3);
    const std::string format = language == Language::USER ? format_of(*text.message) : text.message->text;
    std::string rendered(MAX_TEXT, '\0');
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // a catalog's text takes what the program's own takes
    const int length = std::snprintf(rendered.data(), rendered.size(), format.c_str(), arguments[0].c_str(),
                                     arguments[1].c_str(), arguments[2].c_str());
#pragma GCC diagnostic pop
    rendered.resize(std::min(static_cast<std::size_t>(std::max(length, 0)), MAX_TEXT - 1));
    return rendered;
}

std::string escaped(const std::string& bytes, bool controls) {
    std::string text;
    text.reserve(bytes.size());
    for (std::size_t place = 0; place < bytes.size();)
        place += append_escaped(text, bytes, place, controls);
    return text;
}

std::string shell_word(const std::string& bytes) {
    if (is_plain(bytes))
        return bytes;
    const bool shown_as_it_is = escaped(bytes, true) == bytes && bytes.find('\'') == std::string::npos;
    return shown_as_it_is ? "'" + bytes + "'" : dollar_quoted(bytes);
}
