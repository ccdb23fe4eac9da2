#include "master/target.h"

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

TEST(Target, IsSplitAtItsFirstQuestionMark) {
    const struct {
        std::string raw;
        std::string path;
        std::optional<std::string> query;
    } rows[] = {
        {"", "", std::nullopt},        {"/a/b", "/a/b", std::nullopt}, {"/a?", "/a", ""},
        {"/a?b=c&d", "/a", "b=c&d"},   {"/a?b?c", "/a", "b?c"},        {"?", "", ""},
        {"/%41%2F?%41", "/A/", "%41"}, {"/a#b", "/a#b", std::nullopt},
    };
    for (const auto& row : rows) {
        const Target target = read_target(row.raw);
        EXPECT_EQ(target.path, row.path) << row.raw;
        EXPECT_EQ(target.query, row.query) << row.raw;
    }
}

TEST(PercentDecoding, ReplacesCodesOnceAndLeavesAllElse) {
    const struct {
        std::string text;
        std::string decoded;
    } rows[] = {
        {"", ""},
        {"plain", "plain"},
        {"%41%5a%5A", "AZZ"},
        {"a+b", "a+b"},
        {"%2B", "+"},
        {"%2541", "%41"},
        {"%", "%"},
        {"%4", "%4"},
        {"%4x%x4", "%4x%x4"},
        {"%%41", "%A"},
        {"%00"s, "\0"s},
        {"%fF", "\xff"},
        {"%u0041", "%u0041"},
        {"100%", "100%"},
        {"%-1% 1", "%-1% 1"},
        {"\xc3\xbc", "\xc3\xbc"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(percent_decode(row.text), row.decoded) << row.text;
}

TEST(PackageId, IsAPositiveNumberInDigitsAlone) {
    const struct {
        std::string text;
        std::optional<std::int64_t> id;
    } rows[] = {
        {"1", 1},
        {"7", 7},
        {"007", 7},
        {"9223372036854775807", INT64_MAX},
        {"9223372036854775808", std::nullopt},
        {"18446744073709551617", std::nullopt},
        {"", std::nullopt},
        {"0", std::nullopt},
        {"000", std::nullopt},
        {"-1", std::nullopt},
        {"+1", std::nullopt},
        {" 1", std::nullopt},
        {"1 ", std::nullopt},
        {"1a", std::nullopt},
        {"0x1", std::nullopt},
        {"1.0", std::nullopt},
        {"1\0"s, std::nullopt},
        {"\xd9\xa1", std::nullopt}, // an Arabic digit
    };
    for (const auto& row : rows)
        EXPECT_EQ(read_package_id(row.text), row.id) << row.text;
}

} // namespace
