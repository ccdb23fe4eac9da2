#include "master/json_text.h"

#include <jansson.h>

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

std::string json_string(const std::string& text) {
    std::string out = "before ";
    append_json_string(out, text);
    return out.substr(7);
}

TEST(JsonString, EscapesWhatJsonCannotHold) {
    const struct {
        std::string text;
        std::string json;
    } rows[] = {
        {"", R"("")"},         {"plain / text", R"("plain / text")"},
        {"\"\\", R"("\"\\")"}, {"\0\x01\n\x1f\x7f"s, R"("\u0000\u0001\u000a\u001f\u007f")"},
        {"ü☃𝄞", "\"ü☃𝄞\""},    {"\x7f\xc2\x80", "\"\\u007f\xc2\x80\""},
    };
    for (const auto& row : rows)
        EXPECT_EQ(json_string(row.text), row.json) << row.text;
}

TEST(JsonString, ShowsBytesThatAreNoUtf8AsEscapes) {
    const struct {
        std::string text;
        std::string json;
    } rows[] = {
        {"\xff", R"("\u00ff")"},
        {"\x80", R"("\u0080")"},
        {"\xc3", R"("\u00c3")"},
        {"\xc3(", R"("\u00c3(")"},
        {"\xc0\xaf", R"("\u00c0\u00af")"},                     // overlong
        {"\xc1\xbf", R"("\u00c1\u00bf")"},                     // overlong
        {"\xe0\x9f\xbf", R"("\u00e0\u009f\u00bf")"},           // overlong
        {"\xed\xa0\x80", R"("\u00ed\u00a0\u0080")"},           // a surrogate
        {"\xf0\x8f\xbf\xbf", R"("\u00f0\u008f\u00bf\u00bf")"}, // overlong
        {"\xf4\x90\x80\x80", R"("\u00f4\u0090\u0080\u0080")"}, // above U+10FFFF
        {"\xf5\x80\x80\x80", R"("\u00f5\u0080\u0080\u0080")"},
        {"\xe2\x98", R"("\u00e2\u0098")"},
        {"\xf0\x9d\x84", R"("\u00f0\u009d\u0084")"},
        {"a\xe2\x98z", R"("a\u00e2\u0098z")"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(json_string(row.text), row.json) << row.json;
}

TEST(JsonString, IsReadBackAsItWas) {
    for (const std::string text : {"\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
                                   "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf", "\x01\x7f\"\\"}) {
        json_t* value = json_loads(json_string(text).c_str(), JSON_DECODE_ANY, nullptr);
        ASSERT_NE(value, nullptr) << text;
        EXPECT_EQ(json_string_value(value), text);
        json_decref(value);
    }
}

} // namespace
