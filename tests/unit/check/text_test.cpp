#include "check/text.h"

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

struct EscapeCase {
    std::string bytes;
    std::string whole;     // with control characters left alone
    std::string on_a_line; // with them escaped
};

class Escapes : public testing::TestWithParam<EscapeCase> {};

TEST_P(Escapes, LoseNoByteAndKeepToTheirLine) {
    EXPECT_EQ(escaped(GetParam().bytes, false), GetParam().whole);
    EXPECT_EQ(escaped(GetParam().bytes, true), GetParam().on_a_line);
}

INSTANTIATE_TEST_SUITE_P(
    Text, Escapes,
    testing::Values(EscapeCase{"", "", ""}, EscapeCase{"plain.sja", "plain.sja", "plain.sja"},
                    EscapeCase{"a\\x41", "a\\\\x41", "a\\\\x41"},
                    EscapeCase{"a\nb\tc\r\x1b\x7f\0"s, "a\nb\tc\r\x1b\x7f\0"s,
                               "a\\nb\\tc\\x0d\\x1b\\x7f\\x00"},
                    EscapeCase{"\xc3\xa9\xe3\x81\x82\xf0\x9f\x98\x80", "\xc3\xa9\xe3\x81\x82\xf0\x9f\x98\x80",
                               "\xc3\xa9\xe3\x81\x82\xf0\x9f\x98\x80"},
                    // A C1 control, a byte on its own, a cut character, an overlong one, a surrogate.
                    EscapeCase{"\xc2\x9b", "\\xc2\\x9b", "\\xc2\\x9b"}, EscapeCase{"\xff", "\\xff", "\\xff"},
                    EscapeCase{"\xe3\x81", "\\xe3\\x81", "\\xe3\\x81"},
                    EscapeCase{"\xc0\xaf", "\\xc0\\xaf", "\\xc0\\xaf"},
                    EscapeCase{"\xed\xa0\x80", "\\xed\\xa0\\x80", "\\xed\\xa0\\x80"}));

struct WordCase {
    std::string bytes;
    std::string word;
};

class ShellWords : public testing::TestWithParam<WordCase> {};

TEST_P(ShellWords, AreQuotedWhereAShellWouldChangeThem) {
    EXPECT_EQ(shell_word(GetParam().bytes), GetParam().word);
}

INSTANTIATE_TEST_SUITE_P(Text, ShellWords,
                         testing::Values(WordCase{"", "''"}, WordCase{"/usr/a-b_1.sja", "/usr/a-b_1.sja"},
                                         WordCase{"a b", "'a b'"}, WordCase{"$(x)`y`;*", "'$(x)`y`;*'"},
                                         WordCase{"~", "'~'"}, WordCase{"it's", "$'it\\'s'"},
                                         WordCase{"a\\b", "$'a\\\\b'"}, WordCase{"a\nb", "$'a\\012b'"},
                                         WordCase{"\xff", "$'\\377'"}, WordCase{"\xc3\xa9", "'\xc3\xa9'"}));

TEST(RenderedText, EscapesItsArguments) {
    static constexpr Message message = {"TqlChk9999N", "<%s|%s>"};
    EXPECT_EQ(render({&message, {"a\nb", "%s\\"}}, Language::ENGLISH), "<a\\nb|%s\\\\>");
    EXPECT_EQ(render({}, Language::ENGLISH), "");
}

} // namespace
