#include "platform/format_conversions.h"

#include <gtest/gtest.h>

namespace {

using Conversions = std::optional<std::vector<std::string>>;

TEST(FormatConversions, AreReadInOrderWithTheirLengths) {
    struct Row {
        const char* format;
        std::vector<std::string> expected;
    };
    const std::vector<Row> table = {
        {"", {}},
        {"no conversion", {}},
        {"100%% sure", {}},
        {"%%s", {}},
        {"%d", {"d"}},
        {"[%lu] MB, [%f] percent", {"lu", "f"}},
        {"%-8s|%+.3d|%#lx|% i|%08llu|%'d", {"s", "d", "lx", "i", "llu", "d"}},
        {"%hhd%hd%qd%jd%zu%td%Lf", {"hhd", "hd", "qd", "jd", "zu", "td", "Lf"}},
        {"%*d", {"d", "d"}},
        {"%.*s", {"d", "s"}},
        {"%*.*f%c", {"d", "d", "f", "c"}},
        {"%.s", {"s"}},
        {"%o%u%x%X%e%E%F%g%G%a%A%p", {"o", "u", "x", "X", "e", "E", "F", "g", "G", "a", "A", "p"}},
        {"\xe3\x83\x91%s\xe3\x83\x83", {"s"}},
    };
    for (const Row& row : table)
        EXPECT_EQ(format_conversions(row.format), Conversions(row.expected)) << row.format;
}

TEST(FormatConversions, AreRefusedWhereTheArgumentsWouldNotBeKnown) {
    for (const char* format :
         {"%",  "%l", "%5", "%5%", "%1$s", "%1$*2$d", "%n",    "%hhn",  "%d %n",     "%y",     "%m",
          "%C", "%S", "%-", "%.",  "%.*",  "%*",      "abc %", "%llld", "%\xc3\xa4", "%s %1$s"})
        EXPECT_EQ(format_conversions(format), std::nullopt) << format;
}

TEST(FormatConversions, HaveWidthsAndPrecisionsOfUpToFourDigits) {
    EXPECT_EQ(format_conversions("%9999.9999d"), Conversions({"d"}));
    for (const char* format : {"%10000d", "%.10000d", "%900000000s", "%.2147483647f", "%1.00000s"})
        EXPECT_EQ(format_conversions(format), std::nullopt) << format;
}

TEST(FormatConversions, OfATranslationMayDifferInFlagsWidthAndPrecision) {
    EXPECT_TRUE(same_conversions("status [%d].", "[%5d] ist der Status."));
    EXPECT_TRUE(same_conversions("%s", "%-20.3s"));
    EXPECT_TRUE(same_conversions("50%%", "50"));
}

TEST(FormatConversions, OfATranslationMustAgreeInNumberOrderAndType) {
    EXPECT_FALSE(same_conversions("%d", ""));
    EXPECT_FALSE(same_conversions("%d", "%d %d"));
    EXPECT_FALSE(same_conversions("%d", "%s"));
    EXPECT_FALSE(same_conversions("%d", "%ld"));
    EXPECT_FALSE(same_conversions("%d", "%*d"));
    EXPECT_FALSE(same_conversions("%s %d", "%d %s"));
    EXPECT_FALSE(same_conversions("plain", "%s"));
    EXPECT_FALSE(same_conversions("%s %d", "%2$d %1$s"));
}

TEST(FormatConversions, OfAnUnusableOriginalAgreeWithNothing) {
    EXPECT_FALSE(same_conversions("%1$s", "%1$s"));
    EXPECT_FALSE(same_conversions("%", "%"));
}

} // namespace
