#include "platform/bounded.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Numbers = std::array<unsigned, 6>;

struct Scan {
    int count;
    Numbers numbers;
};

Scan scan(const char* text) {
    Scan result{};
    result.numbers.fill(77);
    result.count = bounded_scan_version(text, result.numbers.data(), 6);
    return result;
}

// What the C library makes of the same text.
Scan scan_with_the_c_library(const char* text) {
    Scan result{};
    Numbers& n = result.numbers;
    // NOLINTBEGIN(cert-err34-c): the behaviour of this very call is what is compared
    result.count =
        std::max(0, std::sscanf(text, "%u.%u.%u.%u.%u.%u", &n[0], &n[1], &n[2], &n[3], &n[4], &n[5]));
    // NOLINTEND(cert-err34-c)
    return result;
}

TEST(BoundedCopy, CopiesWhatFitsAndAlwaysTerminates) {
    struct Row {
        const char* source;
        std::size_t size;
        const char* expected;
    };
    for (const Row& row : {Row{"8.3", 12, "8.3"}, Row{"12345678901", 12, "12345678901"},
                           Row{"123456789012", 12, "12345678901"}, Row{"1234567890123", 12, "12345678901"},
                           Row{"", 12, ""}, Row{"abc", 1, ""}, Row{nullptr, 12, ""}}) {
        std::vector<char> field(row.size, '#');
        bounded_copy(field.data(), field.size(), row.source);
        EXPECT_STREQ(field.data(), row.expected) << (row.source == nullptr ? "null" : row.source);
    }
}

TEST(BoundedCopy, LeavesAFieldOfNoBytesAlone) {
    char field[] = "#";
    bounded_copy(field, 0, "abc");
    EXPECT_STREQ(field, "#");
}

TEST(BoundedCopy, ReadsASourceWithoutEndOnlyAsFarAsTheField) {
    const std::vector<char> endless(11, 'x');
    char field[12];
    bounded_copy(field, sizeof field, endless.data());
    EXPECT_STREQ(field, "xxxxxxxxxxx");
}

TEST(BoundedFormat, PrintsWhatFitsAndAlwaysTerminates) {
    char field[8] = "#######";
    bounded_format(field, sizeof field, "%s/%d", "ab", 12);
    EXPECT_STREQ(field, "ab/12");
    bounded_format(field, sizeof field, "%s/%s", "abcd", "efgh");
    EXPECT_STREQ(field, "abcd/ef");
}

TEST(BoundedFormat, LeavesAFieldOfNoBytesAlone) {
    char field[] = "#";
    bounded_format(field, 0, "%d", 1);
    EXPECT_STREQ(field, "#");
}

TEST(BoundedFormat, LeavesNothingOfATextThatCannotBePrinted) {
    char field[8] = "#######";
    const wchar_t no_character[] = {static_cast<wchar_t>(0x110000), 0};
    bounded_format(field, sizeof field, "ab%ls", no_character);
    EXPECT_STREQ(field, "");
}

TEST(BoundedScanVersion, ReadsAsTheCLibraryDoes) {
    for (const char* text : {"",
                             "8",
                             "8.3",
                             "8.3.0.1",
                             "1.2.3.4.5.6",
                             "1.2.3.4.5.6.7",
                             "7.7",
                             "7.7.",
                             "7..7",
                             ".7",
                             "beta",
                             "8beta",
                             "8.beta",
                             "8.3b.1",
                             "  8",
                             "\t8. 3",
                             "8 .3",
                             "8.\n\v\f\r3",
                             "+8.+3",
                             "-8.3",
                             "8.-3",
                             "--8",
                             "+-8",
                             "- 8",
                             "-",
                             "+",
                             "8.+",
                             "0x10.1",
                             "007.010",
                             "4294967295.1",
                             "8,3",
                             "8.3 rest",
                             "-4294967295",
                             "\302\2408",
                             "8.\xd9\xa3",
                             "4294967296.5",
                             "99999999999.1",
                             "18446744073709551615"}) {
        const Scan expected = scan_with_the_c_library(text);
        const Scan actual = scan(text);
        EXPECT_EQ(actual.count, expected.count) << "\"" << text << "\"";
        EXPECT_EQ(actual.numbers, expected.numbers) << "\"" << text << "\"";
    }
}

TEST(BoundedScanVersion, KeepsTheLowBitsOfANumberOfAnyLength) {
    EXPECT_EQ(scan("4294967296").numbers[0], 0U);
    EXPECT_EQ(scan("18446744073709551617").numbers[0], 1U);
    EXPECT_EQ(scan("36893488147419103235.4").numbers, (Numbers{3, 4, 0, 0, 0, 0}));
}

TEST(BoundedScanVersion, ReadsNoMoreNumbersThanAskedFor) {
    unsigned numbers[3] = {77, 77, 77};
    EXPECT_EQ(bounded_scan_version("1.2.3", numbers, 2), 2);
    EXPECT_EQ(numbers[0], 1U);
    EXPECT_EQ(numbers[1], 2U);
    EXPECT_EQ(numbers[2], 77U);
}

TEST(BoundedScanVersion, FindsNothingInANullText) {
    const Scan result = scan(nullptr);
    EXPECT_EQ(result.count, 0);
    EXPECT_EQ(result.numbers, Numbers{});
}

} // namespace
