// Any text as the translation of a message: one that is taken in place of the default text makes the C
// library fetch the arguments that the default text's callers pass, in number, order and type, and can be
// rendered with them.

#include "platform/format_conversions.h"
#include "tests/fuzz/support/property.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <printf.h>
#include <vector>

namespace {

using Rendering = int (*)(char* buffer, std::size_t size, const char* format);

// A wrapper, as the compiler checks formats that it sees with their arguments.
int render(char* buffer, std::size_t size, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

struct DefaultText {
    const char* format;
    Rendering render; // with the arguments that its callers pass
};

constexpr std::array<DefaultText, 10> DEFAULT_TEXTS = {{
    {"0 deployment packages in the repository.",
     [](char* b, std::size_t n, const char* f) { return render(b, n, f); }},
    {"qvrepo operation failed with status [%d].",
     [](char* b, std::size_t n, const char* f) { return render(b, n, f, 7220); }},
    {"Package ID %s has been deleted.",
     [](char* b, std::size_t n, const char* f) { return render(b, n, f, "7"); }},
    {"%s of %d", [](char* b, std::size_t n, const char* f) { return render(b, n, f, "text", 12); }},
    {"%d, then %s, then %s",
     [](char* b, std::size_t n, const char* f) { return render(b, n, f, 5, "one", "two"); }},
    {"%ld and %lu", [](char* b, std::size_t n, const char* f) { return render(b, n, f, -3L, 4UL); }},
    {"%llu bytes of %zu",
     [](char* b, std::size_t n, const char* f) { return render(b, n, f, 1ULL << 40U, sizeof(int)); }},
    {"%5.1f percent of %Lf",
     [](char* b, std::size_t n, const char* f) { return render(b, n, f, 12.5, 1e300L); }},
    {"%c%hhu%hd", [](char* b, std::size_t n, const char* f) { return render(b, n, f, 'x', 200, -5); }},
    {"%p %x%%", [](char* b, std::size_t n, const char* f) { return render(b, n, f, nullptr, 0xFFU); }},
}};

// The C library's own view of the arguments that a format takes.
std::vector<int> argument_types(const char* format) {
    std::vector<int> types(parse_printf_format(format, 0, nullptr));
    parse_printf_format(format, types.size(), types.data());
    return types;
}

void check_use(const DefaultText& original, const char* translation) {
    const bool usable = same_conversions(original.format, translation);
    require(usable == same_conversions(translation, original.format), "agreement goes both ways");
    if (!usable)
        return;
    require(argument_types(original.format) == argument_types(translation),
            "what is taken for the default text takes its arguments");
    std::array<char, 1024> buffer;
    buffer.fill('#');
    const int length = original.render(buffer.data(), buffer.size(), translation);
    require(length < 0 || up_to_nul(buffer.data()).size() < buffer.size(), "a rendered text is terminated");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = up_to_nul(as_text(data, size));
    const auto conversions = format_conversions(text.c_str());
    require(same_conversions(text.c_str(), text.c_str()) == conversions.has_value(),
            "a usable format agrees with itself, and no other does");
    if (conversions)
        require(argument_types(text.c_str()).size() == conversions->size(),
                "every argument that the C library fetches is counted");
    for (const DefaultText& original : DEFAULT_TEXTS)
        check_use(original, text.c_str());
    return 0;
}
