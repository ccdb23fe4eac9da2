#include "master/bad_request.h"
#include "master/json_reader.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <algorithm>
#include <cstdlib>
#include <malloc.h>

namespace {

// Whether the whole text is JSON, in the reader's eyes.
bool is_json(const std::string& text) {
    try {
        JsonReader reader(text);
        reader.skip();
        reader.finish();
        return true;
    } catch (const BadRequest& error) {
        EXPECT_EQ(std::string(error.what()).substr(0, 22), "the body is not JSON: ") << text;
        return false;
    }
}

bool is_json_to_jansson(const std::string& text) {
    json_t* const value = json_loadb(text.data(), text.size(), JSON_DECODE_ANY, nullptr);
    json_decref(value);
    return value != nullptr;
}

TEST(JsonReader, AgreesWithTheParserOnWhatIsJson) {
    const std::string deepest = std::string(2048, '[') + std::string(2048, ']');
    const std::vector<std::string> texts = {
        "",
        " ",
        "{}",
        "[]",
        " \t\r\n[ 1 , -2.5e3 , \"a\" , true , false , null , { } ] ",
        R"({"a": {"b": [{}]}, "a": 1})",
        R"("\u00e9\n\\")",
        "\"\xc3\xa9\"",
        "9223372036854775807",
        "{",
        "[",
        "[1",
        "[1,",
        "[1,]",
        "[,1]",
        "[1 2]",
        "[1}",
        "]",
        "}",
        "{]",
        R"({"a"})",
        R"({"a":})",
        R"({"a": 1,})",
        R"({"a" 1})",
        "{1: 2}",
        "{[]: 2}",
        "{,}",
        "[1]]",
        "[] x",
        "01",
        "1x",
        "truefalse",
        "nul",
        "+1",
        ".5",
        "1.",
        "'a'",
        "\"a",
        R"("\x")",
        "\"\n\"",
        "\"\xff\"",
        R"("\u0000")",
        R"({"\u0000": 1})",
        R"("\ud800")",
        "9223372036854775808",
        "1e999",
        "[\xc2\xa0]",
        std::string("[]\0", 3),
        std::string("\0", 1),
        std::string("[\0]", 3),
        "\xef\xbb\xbf[]",
        deepest,
        "[" + deepest + "]",
    };
    for (const std::string& text : texts)
        EXPECT_EQ(is_json(text), is_json_to_jansson(text)) << text.substr(0, 80);
}

TEST(JsonReader, GivesWhatIsAskedForAndSkipsWhatIsOfAnotherType) {
    JsonReader reader(R"([ "a\u00e9", 7 , {}, 1, "x", [2], 1.0, {"a": [1], "b": -9 }, 5, [], [[]] ])");
    EXPECT_TRUE(reader.array([&, place = 0]() mutable {
        switch (place++) {
        case 0:
            EXPECT_EQ(reader.string(), "a\xc3\xa9");
            break;
        case 1:
            EXPECT_EQ(reader.string(), std::nullopt);
            break;
        case 2:
            EXPECT_EQ(reader.string(), std::nullopt);
            break;
        case 3:
            EXPECT_EQ(reader.integer(), 1);
            break;
        case 4:
            EXPECT_EQ(reader.integer(), std::nullopt);
            break;
        case 5:
            EXPECT_EQ(reader.integer(), std::nullopt);
            break;
        case 6:
            EXPECT_EQ(reader.integer(), std::nullopt);
            break;
        case 7: {
            std::string names;
            EXPECT_TRUE(reader.object([&](const std::string& name) {
                names += name;
                reader.skip();
            }));
            EXPECT_EQ(names, "ab");
            break;
        }
        case 8:
            EXPECT_FALSE(reader.object([](const std::string&) { FAIL(); }));
            break;
        case 9:
            EXPECT_FALSE(reader.object([](const std::string&) { FAIL(); }));
            break;
        default:
            EXPECT_TRUE(reader.array([&] { EXPECT_TRUE(reader.array([] { FAIL(); })); }));
        }
    }));
    reader.finish();
}

std::size_t in_use = 0;
std::size_t peak = 0;

void* count_allocation(std::size_t size) {
    void* const block = std::malloc(size);
    in_use += malloc_usable_size(block);
    peak = std::max(peak, in_use);
    return block;
}

void count_release(void* block) {
    in_use -= malloc_usable_size(block);
    std::free(block);
}

TEST(JsonReader, KeepsNothingOfWhatItHasRead) {
    json_malloc_t malloc_before = nullptr;
    json_free_t free_before = nullptr;
    json_get_alloc_funcs(&malloc_before, &free_before);
    json_set_alloc_funcs(count_allocation, count_release);
    for (const std::string pattern : {"{},", "1,", R"("a",)", R"({"a": [1.5, null]},)"}) {
        std::string text = "[";
        for (int i = 0; i < 10000; ++i)
            text += pattern;
        text.back() = ']';
        EXPECT_TRUE(is_json(text));
        EXPECT_LT(peak, 1000U) << pattern;
    }
    json_set_alloc_funcs(malloc_before, free_before);
    EXPECT_EQ(in_use, 0U);
    EXPECT_GT(peak, 0U);
}

} // namespace
