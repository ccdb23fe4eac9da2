#include "platform/message_catalog.h"

#include "platform/bounded.h"
#include "platform/catalog_file.h"
#include "platform/format_conversions.h"
#include "platform/paths.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

bool is_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// Only such a name becomes part of a path: it begins with a letter, so no ".." gets through, and holds no
// slash.
bool is_locale_name(const std::string& name) {
    return !name.empty() && is_letter(name[0]) && std::all_of(name.begin(), name.end(), [](char c) {
        return is_letter(c) || is_digit(c) || c == '_' || c == '-' || c == '.' || c == '@';
    });
}

bool has_no_catalog(const std::string& locale) {
    return locale == "C" || locale == "POSIX";
}

std::string locale_of_environment() {
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(variable);
        if (value != nullptr && *value != '\0')
            return is_locale_name(value) ? value : "C";
    }
    return "C";
}

} // namespace

// Without modifier, then without character set, then without country.
std::vector<std::string> catalog_locales(const std::string& locale) {
    std::vector<std::string> names;
    if (!is_locale_name(locale))
        return names;
    names.push_back(locale);
    for (const char mark : {'@', '.', '_'}) {
        const std::string shorter = names.back().substr(0, names.back().find(mark));
        if (shorter != names.back())
            names.push_back(shorter);
    }
    names.erase(std::find_if(names.begin(), names.end(), has_no_catalog), names.end());
    return names;
}

namespace {

// The number of message `id`: its last four digits ("TqlRpo0025N" is 25); 0, which no message has, for
// another form.
int message_number(const char* id) {
    const std::size_t length = id == nullptr ? 0 : std::strlen(id);
    if (length < 5 || !std::all_of(id + length - 5, id + length - 1, is_digit))
        return 0;
    return std::atoi(std::string(id + length - 5, 4).c_str()); // NOLINT(cert-err34-c): four digits
}

std::string format_of(const char* id, const char* locale, const char* default_format) {
    return catalog_format("qvrepo", 1, id, locale, default_format);
}

bool continues_character(char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U;
}

// The length that a character takes whose first byte is `c`; 1 for a byte that begins none.
std::size_t character_length(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0xF0U ? 4 : byte >= 0xE0U ? 3 : byte >= 0xC0U ? 2 : 1;
}

// Removes the last character of a text that was cut in the middle of it.
void drop_partial_character(char* text) {
    const std::size_t end = std::strlen(text);
    std::size_t start = end;
    while (start > 0 && end - start < 3 && continues_character(text[start - 1]))
        --start;
    if (start > 0 && character_length(text[start - 1]) > end - (start - 1))
        text[start - 1] = '\0';
}

void render(char* buffer, std::size_t size, const std::string& format, std::va_list arguments) {
    if (buffer == nullptr || size == 0)
        return;
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the caller has started it
    const int length = std::vsnprintf(buffer, size, format.c_str(), arguments);
    if (length < 0)
        buffer[0] = '\0';
    else if (static_cast<std::size_t>(length) >= size)
        drop_partial_character(buffer);
}

} // namespace

int mxgetlocaleEx(char* messages, std::size_t messagesSize, char* buffer2, std::size_t size2, char* buffer3,
                  std::size_t size3, char* buffer4, std::size_t size4, char* buffer5, std::size_t size5,
                  std::int64_t* errorStatus) {
    std::string locale = locale_of_environment();
    if (locale.size() >= messagesSize)
        locale = "C";
    struct {
        char* text;
        std::size_t size;
    } const buffers[] = {
        {messages, messagesSize}, {buffer2, size2}, {buffer3, size3}, {buffer4, size4}, {buffer5, size5}};
    for (const auto& buffer : buffers) {
        if (buffer.text != nullptr)
            bounded_copy(buffer.text, buffer.size, locale.c_str());
    }
    if (errorStatus != nullptr)
        *errorStatus = 0;
    return 0;
}

std::string catalog_format(const char* catalog, int set, const char* id, const char* locale,
                           const char* defaultFormat) {
    for (const std::string& name : catalog_locales(locale == nullptr ? "" : locale)) {
        const auto text = catalog_text(std::string(MESSAGE_DIRECTORY) + "/" + name + "/" + catalog + ".cat",
                                       message_number(id), set);
        if (text)
            return same_conversions(defaultFormat, text->c_str()) ? *text : defaultFormat;
    }
    return defaultFormat;
}

int mxgetmsg(const char* id, const char* locale, std::size_t size, char* buffer, const char* locale2,
             std::size_t size2, char* buffer2, const char* defaultFormat, ...) {
    std::va_list arguments;
    va_start(arguments, defaultFormat);
    render(buffer, size, format_of(id, locale, defaultFormat), arguments);
    va_end(arguments);
    if (locale2 != nullptr) {
        va_start(arguments, defaultFormat);
        render(buffer2, size2, format_of(id, locale2, defaultFormat), arguments);
        va_end(arguments);
    }
    return 0;
}

const char* getECmsgl(int status, int /*flags*/) {
    static char text[32];
    bounded_format(text, sizeof text, "status code %d", status);
    return text;
}
