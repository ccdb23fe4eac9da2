#include "model/json_document.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string repeated(const std::string& text, std::size_t count) {
    std::string all;
    all.reserve(text.length() * count);
    for (std::size_t i = 0; i < count; ++i)
        all += text;
    return all;
}

std::string nested(std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

// How many bytes of the text its first value takes; 0 when there is none.
std::size_t taken(const std::string& text) {
    json_error_t error;
    return parse_json(text.c_str(), JSON_DECODE_ANY, &error) ? static_cast<std::size_t>(error.position) : 0;
}

std::string reason(const std::string& text) {
    json_error_t error;
    EXPECT_FALSE(parse_json(text.c_str(), 0, &error)) << text.substr(0, 80);
    return error.text;
}

TEST(JsonDocument, ReadsTheFirstValueAndNothingAfterIt) {
    const std::pair<const char*, std::size_t> texts[] = {
        {"{}", 2},          {" {} ", 3},       {"[1, [2]], 3", 8}, {R"({"a": "}"}])", 10},
        {R"("a\"]" ,)", 6}, {R"(["\\"],)", 6}, {"12, 3", 2},       {"12", 2},
        {"-1.5e3]", 6},     {"null}", 4},      {"true", 4},        {R"("",)", 2},
        {"[]]", 2},         {"[ ]{", 3},       {"{} garbage", 2},  {R"("text")", 6},
        {"[{}}", 0},        {"[", 0},          {R"("open)", 0},    {R"("open\)", 0},
        {R"(["\)", 0},      {"", 0},           {" ", 0},           {"]", 0},
        {",", 0},           {"[1 2]", 0},      {"[1,]", 0},        {"{\"a\":1,}", 0},
        {"[}", 0},          {"{\"a\" 1}", 0},  {"nul", 0},         {"01", 0},
    };
    for (const auto& [text, length] : texts)
        EXPECT_EQ(taken(text), length) << text;
}

TEST(JsonDocument, IsNotAPlainValueUnlessAskedFor) {
    for (const char* text : {"1", "\"a\"", "true", "null"}) {
        EXPECT_FALSE(parse_json(text)) << text;
        EXPECT_TRUE(parse_json(text, JSON_DECODE_ANY)) << text;
    }
}

TEST(JsonDocument, ReportsWhatIsWrongAsTheParserDoes) {
    EXPECT_EQ(reason("<html>"), "'[' or '{' expected near '<'");
    EXPECT_EQ(reason("[1 2]"), "']' expected near '2'");
    EXPECT_EQ(reason(nested(2049)), "maximum parsing depth reached near '['");
}

TEST(JsonDocument, MayHoldTheMostValuesAndNotOneMore) {
    const struct {
        const char* sentence;
        std::string start, one, more, end;
        std::size_t values_besides;
    } shapes[] = {
        {"numbers", "[", "0", ",0", "]", 1},
        {"empty objects", "[", "{}", ",{}", "]", 1},
        {"empty arrays with blanks", "[", "[ \n]", ",[ \n]", "]", 1},
        {"members", "{", "\"a\":0", ",\"a\":0", "}", 1},
        {"texts that look like more", "[", "\"[,{\"", ",\"\\\",\"", "]", 1},
    };
    for (const auto& shape : shapes) {
        const std::size_t further = MAX_JSON_VALUES - shape.values_besides - 1;
        const std::string most = shape.start + shape.one + repeated(shape.more, further);
        EXPECT_EQ(taken(most + shape.end), most.length() + 1) << shape.sentence;
        EXPECT_EQ(reason(most + shape.more + shape.end), "the document is too large") << shape.sentence;
    }
}

TEST(JsonDocument, CountsNoValuesAfterTheFirst) {
    EXPECT_EQ(taken("[]" + repeated(",0", MAX_JSON_VALUES)), 2U);
}

TEST(JsonDocument, MayHoldTheLongestTextAndNotOneByteMore) {
    const std::string longest = "[\"" + std::string(MAX_JSON_SIZE - 4, 'x') + "\"]";
    ASSERT_EQ(longest.length(), MAX_JSON_SIZE);
    EXPECT_EQ(taken(longest + ", and more"), MAX_JSON_SIZE);
    EXPECT_EQ(reason("[\"" + std::string(MAX_JSON_SIZE - 3, 'x') + "\"]"), "the document is too large");
    EXPECT_EQ(reason("[\"" + std::string(MAX_JSON_SIZE, 'x')), "the document is too large");
}

TEST(JsonDocument, IsAsDeepAsItMayBeTogetherWithWhatEnclosesIt) {
    json_error_t error;
    EXPECT_TRUE(parse_json(nested(2048).c_str()));
    EXPECT_TRUE(parse_json(nested(2046).c_str(), 0, &error, 2));
    EXPECT_FALSE(parse_json(nested(2047).c_str(), 0, &error, 2));
    EXPECT_STREQ(error.text, "the document is too large");
}

TEST(JsonDocument, NeedsNoRecordOfErrors) {
    EXPECT_FALSE(parse_json("["));
    EXPECT_FALSE(parse_json(("[" + repeated("0,", MAX_JSON_VALUES) + "0]").c_str()));
}

} // namespace
